#pragma once

#include "kernel/Error.h"
#include "kernel/KernelExport.h"
#include "kernel/server/SessionHandshake.h"
#include "kernel/server/SessionKey.h"

#include <chrono>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

/// Why a client can't go on with its server.
class ORVEX_KERNEL_EXPORT RpcClientError : public SystemError {
public:
    enum Trouble {
        CANNOT_CONNECT, ///< nobody answers there
        REFUSED,        ///< somebody answers, but not to us: wrong key, other version, busy
        LOST,           ///< the connection ended
        TIMED_OUT,
        GIVEN_UP ///< somebody here didn't want to wait any longer
    };
    RpcClientError(Trouble trouble, const std::string& message) : SystemError(message), _trouble(trouble) {}
    Trouble getTrouble() const { return _trouble; }

private:
    Trouble _trouble;
};

/// The client's end of a connection to a Server. Every wait has a time limit, except that for the answer to a
/// command when the caller wants none: then it lasts as long as the connection lives. One thread.
class ORVEX_KERNEL_EXPORT RpcClient {
public:
    using Time = std::optional<std::chrono::milliseconds>; ///< none: as long as it takes

    struct Target {
        std::vector<std::string> addresses; ///< tried in this order
        unsigned port = 0;
        SessionKey key;
    };
    struct Reply {
        bool failed = false;
        std::string result;  ///< JSON text
        int code = 0;        ///< of the failure, as in RpcFault
        std::string message; ///< of the failure
        std::string data;    ///< of the failure: JSON text, "{}" when there is none
        std::string bill;    ///< JSON text of what the command cost, when server.bill has asked for it
    };
    /// `params` is JSON text.
    using NotificationCallback = std::function<void(const std::string& method, std::string_view params)>;
    /// @return whether to wait on
    using InterruptCallback = std::function<bool()>;

    RpcClient();
    RpcClient(const RpcClient&) = delete;
    RpcClient& operator=(const RpcClient&) = delete;
    ~RpcClient();

    /// Called for what the server tells unasked, from within the other operations.
    void setNotificationCallback(NotificationCallback callback);
    /// Called after interrupt() by the thread that waits for an answer; when it returns false, the wait ends
    /// with GIVEN_UP, and the command goes on in the server. None: an interruption has no effect.
    void setInterruptCallback(InterruptCallback callback);
    /// Any thread, not in a signal handler.
    void interrupt();
    /// Connects and proves the key both ways.
    /// @param client  what to call this client in the server's logs and to other clients
    void connect(const Target& target, SessionHandshake::Access access, const std::string& client,
                 std::chrono::milliseconds time);
    bool isConnected() const;
    void close();

    /// @param params  JSON text of an object
    Reply call(const std::string& method, const std::string& params, const Time& time = std::nullopt);
    /// Sends a request without waiting for its answer. @return its id, which rises by one with each request
    unsigned long send(const std::string& method, const std::string& params);
    /// The next answer, whichever request it belongs to. Some answers come out of the order of the requests.
    /// @param id  gets the request's
    Reply receive(unsigned long& id, const Time& time = std::nullopt);
    /// Serves notifications until `descriptor` (a terminal, a pipe, a socket) can be read.
    void waitForInput(int descriptor);
    /// Serves notifications until the server closes the connection. @return false when the time was up first
    bool waitForEnd(std::chrono::milliseconds time);

private:
    struct Impl;
    std::unique_ptr<Impl> _impl;
};
