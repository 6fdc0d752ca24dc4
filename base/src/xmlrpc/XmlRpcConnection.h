#pragma once

#include "xmlrpc/HttpReader.h"

#include <asio/ip/tcp.hpp>
#include <asio/steady_timer.hpp>

#include <array>
#include <chrono>
#include <functional>
#include <memory>
#include <string>
#include <string_view>

namespace XmlRpc {

/// A connection of a server: one request and its answer, within a time.
class XmlRpcConnection : public std::enable_shared_from_this<XmlRpcConnection> {
public:
    using Duration = std::chrono::steady_clock::duration;

    /// The server's part. All are called on the thread of the loop.
    struct Hooks {
        /// Returns the HTTP status that refuses a request with this header, or 0.
        std::function<int(const HttpReader&, const std::string& peer)> check;
        /// Returns the document that answers a call.
        std::function<std::string(const std::string& body)> execute;
        std::function<void(const std::shared_ptr<XmlRpcConnection>&)> ended;
    };

    /// @param hooks  outlives the connection
    XmlRpcConnection(asio::ip::tcp::socket socket, const Hooks& hooks, std::size_t maxBody, Duration time);

    void start();
    /// Gives the request and its answer more time.
    void extend(Duration time);
    /// Closes the socket.
    void end();
    /// Whether the header of the request was accepted.
    bool isAdmitted() const { return _admitted; }
    /// Whether it has neither shown the secret nor sent anything that waits to be read.
    bool isSilent() const;
    std::chrono::steady_clock::time_point getBegin() const { return _begin; }

private:
    static constexpr std::size_t READ_SIZE = 16384;    ///< [bytes]
    static constexpr std::size_t DRAIN_FACTOR = 4;     ///< limit of what is drained, in bodies
    static constexpr std::size_t MIN_DRAIN = 1u << 20; ///< [bytes]

    int check();
    void armTimer(std::chrono::steady_clock::time_point deadline);
    void read();
    void onRead(std::string_view bytes);
    void answerExpectation();
    void send(std::string text);
    void finish();
    void drain();

    asio::ip::tcp::socket _socket;
    const Hooks& _hooks;
    const std::size_t _maxBody;
    const Duration _time;
    std::chrono::steady_clock::time_point _begin = std::chrono::steady_clock::now();
    asio::steady_timer _timer;
    HttpReader _reader;
    std::array<char, READ_SIZE> _buffer{};
    std::string _text; ///< that is being sent
    std::size_t _drained = 0;
    bool _admitted = false;
    bool _invited = false; ///< to send the body
    bool _refused = false;
    bool _ended = false;
};

} // namespace XmlRpc
