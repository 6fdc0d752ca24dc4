#pragma once

#include <string>

/// Amounts as text for people, with a unit that fits.
namespace Quantity {

/// As in "1.5 MiB" and "17 B".
std::string bytes(double value);

} // namespace Quantity
