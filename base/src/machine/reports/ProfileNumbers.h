#pragma once

#include "machine/MachineExport.h"

#include <string>
#include <vector>

class Properties;

/// The forms of numbers in a profile. Reals have few digits, since a profile of many ranks is mostly made of
/// them. Local, any thread.
class ORVEX_MACHINE_EXPORT ProfileNumbers {
public:
    /// The significant digits of the reals in the profile of a job of this size: 5, or 4 above 1,000 ranks.
    static int countDigits(unsigned ranks) { return ranks > 1000 ? 4 : 5; }
    /// To `digits` significant digits.
    static double round(double value, int digits);
    static std::vector<double> round(std::vector<double> values, int digits);
    /// One key that holds a list of lists.
    static Properties makeRows(const std::string& key, const std::vector<std::vector<long long>>& rows);
};
