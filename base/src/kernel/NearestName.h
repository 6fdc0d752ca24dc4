#pragma once

#include <string>
#include <vector>

/// Finds the name that somebody meant who mistyped one. Private to the kernel.
class NearestName {
public:
    /// The first of the nearest names, without regard to the case of letters; empty when none is near.
    static std::string find(const std::string& typed, const std::vector<std::string>& names);
};
