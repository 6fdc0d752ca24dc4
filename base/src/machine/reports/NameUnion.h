#pragma once

#include "machine/MachineExport.h"

#include <set>
#include <string>

class Communicator;

/// The names that some ranks know, on all ranks.
class ORVEX_MACHINE_EXPORT NameUnion {
public:
    /// The names that at least one rank gives. They go up a tree of the ranks, which drops the duplicates, so
    /// that no rank holds more than its own names, the union, and one more list.
    /// Collective over `communicator`, main thread. A name may be empty, but holds no null character.
    static std::set<std::string> unite(Communicator& communicator, std::set<std::string> names);
};
