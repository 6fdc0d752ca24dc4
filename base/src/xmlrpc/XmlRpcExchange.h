#pragma once

#include "xmlrpc/HttpReader.h"
#include "xmlrpc/XmlRpcAnswer.h"

#include <asio/io_context.hpp>
#include <asio/ip/tcp.hpp>
#include <asio/steady_timer.hpp>

#include <array>
#include <chrono>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace XmlRpc {

/// One call to one server: connects, sends the request, reads the answer, within one time.
class XmlRpcExchange : public std::enable_shared_from_this<XmlRpcExchange> {
public:
    using TimePoint = std::chrono::steady_clock::time_point;
    using Callback = std::function<void(XmlRpcAnswer&&)>;

    /// @param where  the server's name in the failures
    XmlRpcExchange(asio::io_context& loop, std::string where);

    /// @param endpoints  are tried in their order
    /// @param done  is called once, on the thread of the loop
    void start(const std::vector<asio::ip::tcp::endpoint>& endpoints, std::string request, TimePoint deadline,
               Callback done);

private:
    static constexpr std::size_t READ_SIZE = 16384; ///< [bytes]

    void onConnected();
    void write();
    void read();
    void onRead(const asio::error_code& failed, std::string_view bytes);
    void onAnswer();
    void onDeadline();
    void fail(const std::string& reason);
    void finish(XmlRpcAnswer answer);

    asio::ip::tcp::socket _socket;
    asio::steady_timer _timer;
    const std::string _where;
    TimePoint _begin;
    std::string _request;
    Callback _done;
    HttpReader _reader;
    std::array<char, READ_SIZE> _buffer{};
    bool _connected = false;
    bool _finished = false;
};

} // namespace XmlRpc
