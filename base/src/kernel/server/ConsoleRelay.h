#pragma once

#include "kernel/server/ConsoleTee.h"

#include <atomic>
#include <functional>
#include <iosfwd>
#include <mutex>

class ServerClients;

/// Sends what this process writes to an output stream to the clients, in the order in which it came.
class ConsoleRelay {
public:
    /// Taps `stream` at once, for its lifetime.
    /// @param limit  bytes that may wait to be sent; more is lost, and the clients are told
    /// @param wake   called on a writing thread when there is something to drain(); once until that is done
    ConsoleRelay(std::ostream& stream, std::size_t limit, ServerClients& clients, std::function<void()> wake);
    ConsoleRelay(const ConsoleRelay&) = delete;
    ConsoleRelay& operator=(const ConsoleRelay&) = delete;

    /// Looks again whether any client reads along.
    void noteClients();
    /// ConsoleTee::revive() of the stream. The thread that runs the commands.
    void revive() { _tee.revive(); }
    /// Hands what was written so far to the clients. Any thread.
    void drain();

private:
    void onText();

    ServerClients& _clients;
    const std::function<void()> _wake;
    std::atomic<bool> _woken{false};
    std::mutex _mutex; ///< one drain at a time
    ConsoleTee _tee;
};
