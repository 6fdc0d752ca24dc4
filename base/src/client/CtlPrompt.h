#pragma once

#include <memory>
#include <optional>
#include <string>

class CtlConsole;
class CtlSession;

/// The interactive prompt: editing, history, completion of commands and their arguments. While it waits for a
/// key, what the server prints appears above it. Ctrl-C clears the line. Each line goes into the history's
/// file before it runs.
class CtlPrompt {
public:
    CtlPrompt(CtlSession& session, CtlConsole& console);
    CtlPrompt(const CtlPrompt&) = delete;
    CtlPrompt& operator=(const CtlPrompt&) = delete;
    ~CtlPrompt();

    /// The next line, none at the end of the input or of the connection.
    std::optional<std::string> readLine();

private:
    struct Impl;
    std::unique_ptr<Impl> _impl;
};
