#pragma once

#include <string>
#include <string_view>
#include <vector>

/// The commands that orvexctl understands itself, without asking what the server can do.
namespace OwnCommands {

bool isOne(std::string_view name);
std::vector<std::string> getNames();
/// The options of `name`, for example "--force".
std::vector<std::string> getOptions(std::string_view name);
/// A line for each of them, or for `name` alone.
std::string describe(std::string_view name = {});

} // namespace OwnCommands
