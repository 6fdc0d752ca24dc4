#pragma once

#include "kernel/Properties.h"

#include <string>
#include <vector>

/// The bills of commands as text for people.
namespace CtlBill {

/// One bill: a head line and a table with a row for each figure.
std::string describe(const Properties& bill);
/// One line on the command at work, of one rank.
std::string describeSoFar(const Properties& bill);
/// A row for each bill, the newest last.
std::string list(const std::vector<Properties>& bills);

} // namespace CtlBill
