#pragma once

#include <string>

class CtlConsole;
class CtlSession;

/// While it lives, Ctrl-C doesn't end orvexctl: the first asks the server to cancel the command, the second
/// makes the wait for its answer end with RpcClientError::GIVEN_UP. One at a time.
class CtlInterrupt {
public:
    /// @param command  empty when none runs
    CtlInterrupt(CtlSession& session, CtlConsole& console, const std::string& command = {});
    CtlInterrupt(const CtlInterrupt&) = delete;
    CtlInterrupt& operator=(const CtlInterrupt&) = delete;
    ~CtlInterrupt();

    /// Whether Ctrl-C was pressed.
    bool happened() const { return _count > 0; }

private:
    bool onInterrupt();

    CtlSession& _session;
    CtlConsole& _console;
    const std::string _command;
    int _count = 0;
};
