#include "xmlrpc/XmlRpcExchange.h"

#include "xmlrpc/HttpText.h"
#include "xmlrpc/XmlRpcMessage.h"
#include "xmlrpc/XmlRpcSocket.h"

#include <asio/buffer.hpp>
#include <asio/connect.hpp>
#include <asio/write.hpp>

#include <cstdio>

namespace XmlRpc {

using Clock = std::chrono::steady_clock;

namespace {

constexpr int OK = 200;

std::string describeSeconds(Clock::duration time) {
    char text[32];
    std::snprintf(text, sizeof text, "%.1f s", std::chrono::duration<double>(time).count());
    return text;
}

} // namespace

XmlRpcExchange::XmlRpcExchange(asio::io_context& loop, std::string where)
    : _socket(loop), _timer(loop), _where(std::move(where)),
      _reader(HttpReader::Kind::ANSWER, XmlRpcValue::MAX_TEXT_SIZE) {}

void XmlRpcExchange::start(const std::vector<asio::ip::tcp::endpoint>& endpoints, std::string request,
                           TimePoint deadline, Callback done) {
    _begin = Clock::now();
    _request = std::move(request);
    _done = std::move(done);
    _timer.expires_at(deadline);
    _timer.async_wait([self = shared_from_this()](const asio::error_code& cancelled) {
        if (!cancelled)
            self->onDeadline();
    });
    asio::async_connect(
        _socket, endpoints,
        [self = shared_from_this()](const asio::error_code& failed, const asio::ip::tcp::endpoint&) {
            if (failed)
                self->fail(self->_where + " can't be reached: " + failed.message());
            else if (!self->_finished)
                self->onConnected();
        });
}

void XmlRpcExchange::onConnected() {
    _connected = true;
    XmlRpcSocket::keepFromChildren(_socket.native_handle());
    asio::error_code ignored; // a socket whose peer has left refuses its options; reading tells
    _socket.set_option(asio::ip::tcp::no_delay(true), ignored);
    write();
    read();
}

void XmlRpcExchange::write() {
    // A server may refuse a request before it has read all of it, so a failure here is left to the reading.
    asio::async_write(_socket, asio::buffer(_request),
                      [self = shared_from_this()](const asio::error_code&, std::size_t) {});
}

void XmlRpcExchange::read() {
    _socket.async_read_some(asio::buffer(_buffer),
                            [self = shared_from_this()](const asio::error_code& failed, std::size_t size) {
                                if (!self->_finished)
                                    self->onRead(failed, {self->_buffer.data(), size});
                            });
}

void XmlRpcExchange::onRead(const asio::error_code& failed, std::string_view bytes) {
    if (failed && failed != asio::error::eof)
        return fail("the connection to " + _where + " broke: " + failed.message());
    switch (failed ? _reader.readEnd() : _reader.read(bytes)) {
    case HttpReader::State::INCOMPLETE:
        return read();
    case HttpReader::State::COMPLETE:
        return onAnswer();
    case HttpReader::State::REFUSED:
        return fail("the answer of " + _where + " can't be read: " + _reader.getFailure());
    }
}

void XmlRpcExchange::onAnswer() {
    if (_reader.getStatus() != OK)
        return fail(_where + " answered with the HTTP status " +
                    HttpText::describeStatus(_reader.getStatus()));
    try {
        XmlRpcMessage::Answer answer = XmlRpcMessage::readAnswer(_reader.getBody());
        if (answer.fault)
            return fail(_where + " answered with the fault " + std::to_string(answer.fault->code) + ": " +
                        answer.fault->text);
        finish({true, std::move(answer.result), {}});
    } catch (const std::invalid_argument& error) {
        fail("the answer of " + _where + " can't be read: " + error.what());
    }
}

void XmlRpcExchange::onDeadline() {
    const std::string time = describeSeconds(_timer.expiry() - _begin);
    fail(_where + (_connected ? " gave no answer within " : " can't be reached within ") + time);
}

void XmlRpcExchange::fail(const std::string& reason) {
    finish({false, XmlRpcValue(), reason});
}

void XmlRpcExchange::finish(XmlRpcAnswer answer) {
    if (_finished)
        return;
    _finished = true;
    _timer.cancel();
    asio::error_code ignored; // close() releases the descriptor also when it fails
    _socket.close(ignored);
    _done(std::move(answer));
}

} // namespace XmlRpc
