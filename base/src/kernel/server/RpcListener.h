#pragma once

#include <functional>
#include <memory>
#include <string>

struct RpcSocket;

namespace asio {
class io_context;
}

/// Listens for clients on a port of its choice and lets in those whose address may come in.
class RpcListener {
public:
    using AcceptCallback = std::function<void(std::unique_ptr<RpcSocket>)>;
    /// Told of a connection from an address that isn't welcome; the socket may be used for a last word.
    using RefuseCallback = std::function<void(std::unique_ptr<RpcSocket>, const std::string& address)>;
    using TroubleCallback = std::function<void(const std::string& text)>;

    explicit RpcListener(std::shared_ptr<asio::io_context> loop);
    RpcListener(const RpcListener&) = delete;
    RpcListener& operator=(const RpcListener&) = delete;
    ~RpcListener();

    /// Listens on loopback, or with a client's name or address on all interfaces for that client alone.
    /// @param range  number of ports to try from `port`, -1: that port, then any free one
    /// @throw NonRecoverableError when no port can be had or `client` has no address
    void open(const std::string& client, unsigned port, int range);
    unsigned getPort() const;
    /// Service thread, from here on.
    void start(AcceptCallback accepted, RefuseCallback refused, TroubleCallback trouble);
    void close();

private:
    struct Impl;
    std::shared_ptr<Impl> _impl; ///< shared with the accept that is under way
};
