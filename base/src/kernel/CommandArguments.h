#pragma once

#include <optional>
#include <string>

class Command;
class Properties;

/// Checks requests against the help of their commands. Private to the kernel.
class CommandArguments {
public:
    /// The first fault of a request, in words: a key that the command doesn't take, then one that is missing,
    /// then a value of another type. None when there is no fault.
    static std::optional<std::string> findFault(const Command& command, const Properties& args);
};
