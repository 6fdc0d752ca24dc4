#include "xmlrpc/XmlRpcConnection.h"

#include "platform/StringHelper.h"
#include "xmlrpc/HttpText.h"

#include <asio/buffer.hpp>
#include <asio/write.hpp>

#include <algorithm>

namespace XmlRpc {

using Clock = std::chrono::steady_clock;

XmlRpcConnection::XmlRpcConnection(asio::ip::tcp::socket socket, const Hooks& hooks, std::size_t maxBody,
                                   Duration time)
    : _socket(std::move(socket)), _hooks(hooks), _maxBody(maxBody), _time(time),
      _timer(_socket.get_executor()), _reader(HttpReader::Kind::REQUEST, maxBody) {}

void XmlRpcConnection::start() {
    asio::error_code ignored; // a socket whose peer has left refuses its options; reading tells
    _socket.non_blocking(true, ignored);
    _socket.set_option(asio::ip::tcp::no_delay(true), ignored);
    _reader.setCheck([this] { return check(); });
    armTimer(Clock::now() + _time);
    read();
}

int XmlRpcConnection::check() {
    asio::error_code failed;
    const auto peer = _socket.remote_endpoint(failed);
    const int refusal =
        _hooks.check(_reader, failed ? std::string("a peer that left") : peer.address().to_string());
    _admitted = refusal == 0;
    return refusal;
}

void XmlRpcConnection::armTimer(Clock::time_point deadline) {
    _timer.expires_at(deadline);
    _timer.async_wait([self = shared_from_this()](const asio::error_code& cancelled) {
        if (!cancelled && Clock::now() >= self->_timer.expiry())
            self->end();
    });
}

void XmlRpcConnection::extend(Duration time) {
    if (!_ended)
        armTimer(_timer.expiry() + time);
}

bool XmlRpcConnection::isSilent() const {
    asio::error_code failed;
    return !_admitted && !_ended && _socket.available(failed) == 0;
}

void XmlRpcConnection::end() {
    if (_ended)
        return;
    _ended = true;
    _timer.cancel();
    asio::error_code ignored; // close() releases the descriptor also when it fails
    _socket.close(ignored);
    _hooks.ended(shared_from_this());
}

void XmlRpcConnection::read() {
    _socket.async_read_some(asio::buffer(_buffer),
                            [self = shared_from_this()](const asio::error_code& failed, std::size_t size) {
                                if (failed)
                                    self->end(); // half a request is no request
                                else if (!self->_ended)
                                    self->onRead({self->_buffer.data(), size});
                            });
}

void XmlRpcConnection::onRead(std::string_view bytes) {
    switch (_reader.read(bytes)) {
    case HttpReader::State::INCOMPLETE:
        answerExpectation();
        read();
        break;
    case HttpReader::State::COMPLETE: {
        std::string document = _hooks.execute(_reader.getBody());
        if (_ended)
            return;
        armTimer(Clock::now() + _time); // the method may have taken long
        send(HttpText::makeAnswer(document));
        break;
    }
    case HttpReader::State::REFUSED:
        _refused = true;
        send(HttpText::makeRefusal(_reader.getStatus(), _reader.getFailure()));
        break;
    }
}

/// Some clients wait for an invitation before they send a body.
void XmlRpcConnection::answerExpectation() {
    if (_invited || !_reader.isHeaderComplete() || !_reader.isHttp11() ||
        StringHelper::toLower(_reader.getHeader("expect")) != "100-continue")
        return;
    _invited = true;
    asio::error_code ignored; // the socket's buffer is empty: the few bytes fit, or the peer has left
    _socket.write_some(asio::buffer(std::string_view(HttpText::CONTINUE)), ignored);
}

/// The answer leaves before work() returns, if the socket's buffer holds it.
void XmlRpcConnection::send(std::string text) {
    _text = std::move(text);
    asio::error_code failed;
    const std::size_t sent = _socket.write_some(asio::buffer(_text), failed);
    if (failed && failed != asio::error::would_block)
        return end();
    if (sent == _text.size())
        return finish();
    asio::async_write(_socket, asio::buffer(_text.data() + sent, _text.size() - sent),
                      [self = shared_from_this()](const asio::error_code& lost, std::size_t) {
                          if (lost)
                              self->end();
                          else if (!self->_ended)
                              self->finish();
                      });
}

void XmlRpcConnection::finish() {
    if (!_refused)
        return end();
    asio::error_code ignored; // a peer that has left needs no end
    _socket.shutdown(asio::ip::tcp::socket::shutdown_send, ignored);
    drain();
}

/// Bytes that nobody read would make the system throw the refusal away.
void XmlRpcConnection::drain() {
    _socket.async_read_some(
        asio::buffer(_buffer), [self = shared_from_this()](const asio::error_code& failed, std::size_t size) {
            self->_drained += size;
            if (failed || self->_drained > std::max(MIN_DRAIN, DRAIN_FACTOR * self->_maxBody))
                self->end();
            else if (!self->_ended)
                self->drain();
        });
}

} // namespace XmlRpc
