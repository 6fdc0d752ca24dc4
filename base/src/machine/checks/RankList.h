#pragma once

#include "machine/MachineExport.h"

#include <string>
#include <vector>

/// Ranks as text.
class ORVEX_MACHINE_EXPORT RankList {
public:
    /// As in "1,3-7", of ranks that rise.
    static std::string describe(const std::vector<unsigned>& ranks);
};
