#pragma once

#include <asio/io_context.hpp>
#include <asio/ip/tcp.hpp>

#include <memory>

/// A TCP socket with the loop that serves it. Only the sources that touch sockets include this.
struct RpcSocket {
    explicit RpcSocket(std::shared_ptr<asio::io_context> context) : loop(std::move(context)), socket(*loop) {}

    /// Small messages leave at once, a dead peer is noticed within a minute, nothing blocks.
    void tune();

    std::shared_ptr<asio::io_context> loop; ///< outlives the socket
    asio::ip::tcp::socket socket;
};
