#include "client/Quantity.h"

#include <array>
#include <cmath>
#include <cstdio>

std::string Quantity::bytes(double value) {
    static constexpr std::array UNITS{"B", "KiB", "MiB", "GiB", "TiB", "PiB"};
    std::size_t unit = 0;
    for (; std::abs(value) >= 1024.0 && unit + 1 < UNITS.size(); ++unit)
        value /= 1024.0;
    std::array<char, 64> text{};
    std::snprintf(text.data(), text.size(), unit == 0 ? "%.0f %s" : "%.1f %s", value, UNITS[unit]);
    return text.data();
}
