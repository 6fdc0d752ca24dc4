#include "machine/reports/ProfileNumbers.h"

#include "kernel/Properties.h"

#include <cmath>
#include <cstdio>
#include <cstdlib>

double ProfileNumbers::round(double value, int digits) {
    if (!std::isfinite(value))
        return value;
    char text[64];
    std::snprintf(text, sizeof text, "%.*e", digits - 1, value);
    return std::strtod(text, nullptr);
}

std::vector<double> ProfileNumbers::round(std::vector<double> values, int digits) {
    for (double& value : values)
        value = round(value, digits);
    return values;
}

Properties ProfileNumbers::makeRows(const std::string& key, const std::vector<std::vector<long long>>& rows) {
    std::string text = "{\"" + key + "\":[";
    for (std::size_t row = 0; row < rows.size(); ++row) {
        text += row == 0 ? "[" : ",[";
        for (std::size_t i = 0; i < rows[row].size(); ++i)
            text += (i == 0 ? "" : ",") + std::to_string(rows[row][i]);
        text += ']';
    }
    return Properties(text + "]}");
}
