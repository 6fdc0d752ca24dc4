#pragma once

#include <memory>
#include <optional>
#include <string>

class CtlSession;

/// The interactive prompt: editing, history, completion of commands and their arguments. While it waits for a
/// key, what the server prints appears above it.
class CtlPrompt {
public:
    explicit CtlPrompt(CtlSession& session);
    CtlPrompt(const CtlPrompt&) = delete;
    CtlPrompt& operator=(const CtlPrompt&) = delete;
    ~CtlPrompt();

    /// The next line, none at the end of the input or of the connection.
    std::optional<std::string> readLine();

private:
    struct Impl;
    std::unique_ptr<Impl> _impl;
};
