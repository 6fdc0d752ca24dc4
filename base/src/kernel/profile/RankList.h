#pragma once

#include "kernel/KernelExport.h"

#include <cstddef>
#include <string>
#include <vector>

/// Lists of ranks as text. The ranks rise.
namespace RankList {

/// As in "1,3-7".
ORVEX_KERNEL_EXPORT std::string describe(const std::vector<unsigned>& ranks);
/// The same within `width` characters: a longer list loses its middle and tells its size, as in
/// "0-3,7,...,1021 (512 ranks)".
ORVEX_KERNEL_EXPORT std::string describe(const std::vector<unsigned>& ranks, std::size_t width);

} // namespace RankList
