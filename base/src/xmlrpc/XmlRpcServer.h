#pragma once

#include <cstddef>
#include <memory>
#include <string>

namespace XmlRpc {

class XmlRpcServerMethod;

/// Serves calls of XML-RPC at "/" and "/RPC2", with no thread of its own: work() serves on the calling
/// thread, and it sleeps while nothing arrives. Each connection has one request, and ends with its answer.
///
/// One thread at a time, except where the operation tells otherwise.
class XmlRpcServer {
public:
    struct Limits {
        std::size_t requestBytes = std::size_t(1) << 20; ///< of the body
        double requestSeconds = 5.0;                     ///< for a whole request, and again for its answer
        std::size_t connections = 64;                    ///< at the same time
    };

    XmlRpcServer();
    ~XmlRpcServer();
    XmlRpcServer(const XmlRpcServer&) = delete;
    XmlRpcServer& operator=(const XmlRpcServer&) = delete;

    /// @param port     0: the system chooses one
    /// @param backlog  connections that wait in the system
    /// @param address  a numeric address or a name of this host, of IPv4 or IPv6
    /// @return false on failure: getLastFailure() tells the reason
    bool bindAndListen(int port, int backlog, const std::string& address = "127.0.0.1");
    const std::string& getLastFailure() const;
    /// The port, 0 when not listening. Any thread.
    int getPort() const;
    /// The listening descriptor, XmlRpcSocket::InvalidSocket when not listening. Any thread.
    int getfd() const;

    /// @param method  is borrowed. It replaces one of the same name.
    void addMethod(XmlRpcServerMethod& method);
    /// Requests without this text are refused: it stands in the header line "X-Orvex-Job", or in the query of
    /// the request line as "job". An empty text accepts each request.
    void setSecret(const std::string& secret);
    /// Applies to connections that come later.
    void setLimits(const Limits& limits);

    /// Serves until the time is up, exitWork() or shutdown(). The methods run inside it. When a method calls
    /// exitWork(), its answer is sent first, as far as the system takes it at once; the rest follows in the
    /// next work().
    /// @param seconds  below 0: without limit
    /// @return false after a failure, after shutdown(), and without a listening socket
    bool work(double seconds);
    /// Lets the present work() return, or the next one when there is none. Any thread.
    void exitWork();
    /// Closes the socket and the connections; the present work() returns after the method that it runs. Any
    /// thread.
    void shutdown();

private:
    struct Impl;
    std::unique_ptr<Impl> _impl;
};

} // namespace XmlRpc
