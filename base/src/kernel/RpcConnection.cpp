#include "kernel/RpcConnection.h"

#include "kernel/RpcMessage.h"
#include "kernel/RpcSocket.h"

#include <asio/post.hpp>

#include <utility>

namespace {

constexpr std::size_t KEPT_CAPACITY = std::size_t(256) << 10; ///< [bytes] of an idle send buffer

std::string addressOf(const asio::ip::tcp::socket& socket) {
    asio::error_code failed;
    const asio::ip::tcp::endpoint endpoint = socket.remote_endpoint(failed);
    if (failed)
        return "unknown address";
    return endpoint.address().to_string() + ":" + std::to_string(endpoint.port());
}

} // namespace

RpcConnection::RpcConnection(std::unique_ptr<RpcSocket> socket, const ServerLimits& limits, Owner& owner)
    : _limits(limits), _owner(owner), _socket(std::move(socket)), _address(addressOf(_socket->socket)),
      _frames(limits.handshakeFrameSize) {}

RpcConnection::~RpcConnection() = default;

void RpcConnection::start() {
    read();
}

void RpcConnection::read() {
    if (_reading || _state == State::CLOSED)
        return;
    _reading = true;
    const std::span<char> room = _frames.prepare();
    _socket->socket.async_read_some(
        asio::buffer(room.data(), room.size()),
        [self = shared_from_this()](const asio::error_code& failed, std::size_t size) {
            const bool ended = failed == asio::error::eof;
            try {
                self->onRead(bool(failed), size, failed && !ended ? failed.message() : std::string());
            } catch (const std::exception& error) { // no memory for what it sends
                self->close(error.what(), false);
            }
        });
}

void RpcConnection::onRead(bool failed, std::size_t size, const std::string& why) {
    _reading = false;
    if (_state == State::CLOSED)
        return;
    if (failed) {
        const std::string text = why.empty() ? "the client closed the connection" : why;
        const std::size_t rest = _frames.size();
        if (rest > 0 && _state == State::SERVING)
            close(text + " in the middle of a request, after " + std::to_string(rest) + " bytes of it",
                  false);
        else
            close(text, true);
        return;
    }
    if (_state == State::LINGERING) { // what comes now is read only so that the peer gets our last line
        _lingerRead += size;
        if (_lingerRead < _frames.getLimit())
            read();
        return;
    }
    _frames.commit(size);
    serveLines();
}

void RpcConnection::serveLines() {
    while (_state == State::SERVING) {
        {
            const std::lock_guard lock(_mutex);
            _paused = isBlocked();
            if (_paused)
                return;
        }
        const std::optional<std::string_view> line = _frames.next();
        if (line)
            _owner.onLine(*this, *line);
        else if (_frames.isTooLong())
            _owner.onTooLong(*this);
        else
            break;
    }
    if (_state == State::LINGERING)
        _frames.clear();
    read();
}

bool RpcConnection::isBlocked() const {
    return _pending >= _limits.pendingRequests || backlog() > _limits.answerBacklog;
}

void RpcConnection::beginRequest() {
    const std::lock_guard lock(_mutex);
    ++_pending;
}

void RpcConnection::finishRequest(std::string_view line) {
    const std::lock_guard lock(_mutex);
    --_pending;
    if (!line.empty())
        append(line, true);
    if (_paused && !isBlocked()) {
        _paused = false;
        asio::post(*_socket->loop, [weak = weak_from_this()] {
            if (const auto self = weak.lock())
                self->serveLines();
        });
    }
}

void RpcConnection::send(std::string_view line) {
    const std::lock_guard lock(_mutex);
    append(line, true);
}

void RpcConnection::sendNotice(std::string_view notification, std::size_t lines) {
    const std::lock_guard lock(_mutex);
    if (_lostLines > 0 || (backlog() > 0 && backlog() + notification.size() > _limits.consoleBacklog)) {
        _lostLines += lines;
        return;
    }
    append(notification, false);
}

void RpcConnection::noteLoss() {
    if (_lostLines == 0)
        return;
    const std::string params = "{\"lines\":" + std::to_string(std::exchange(_lostLines, 0)) + "}";
    append(RpcMessage::notification("server.consoleLost", params), false);
}

void RpcConnection::append(std::string_view text, bool answer) {
    if (_broken)
        return;
    if (answer)
        noteLoss(); // at its place: before what comes after the loss
    if (backlog() == 0)
        _lastProgress = Clock::now();
    _out.append(text);
    _appended += text.size();
    if (answer)
        _answersEnd = _appended;
    if (_watching) // the loop writes as soon as the peer takes more
        return;
    writeOut();
    if (backlog() > 0 || _broken) {
        _watching = true;
        asio::post(*_socket->loop, [weak = weak_from_this()] {
            if (const auto self = weak.lock())
                self->watchWritable();
        });
    }
}

void RpcConnection::writeOut() {
    while (backlog() > 0 && !_broken) {
        asio::error_code failed;
        const std::size_t size =
            _socket->socket.write_some(asio::buffer(_out.data() + _outBegin, backlog()), failed);
        if (failed == asio::error::would_block)
            break;
        _broken = bool(failed);
        _outBegin += size;
        _sent += size;
        _lastProgress = Clock::now();
    }
    if (backlog() == 0 || _broken) {
        _outBegin = 0;
        _out.clear();
        if (_out.capacity() > KEPT_CAPACITY)
            std::string().swap(_out);
    } else if (_outBegin > _out.size() / 2) {
        _out.erase(0, _outBegin);
        _outBegin = 0;
    }
}

void RpcConnection::watchWritable() {
    if (_state == State::CLOSED)
        return;
    _owner.onSupervisionNeeded();
    _socket->socket.async_wait(asio::ip::tcp::socket::wait_write,
                               [self = shared_from_this()](const asio::error_code&) { self->onWritable(); });
}

void RpcConnection::onWritable() {
    if (_state == State::CLOSED)
        return;
    bool broken = false;
    bool again = false;
    bool resume = false;
    {
        const std::lock_guard lock(_mutex);
        writeOut();
        if (backlog() <= _limits.consoleBacklog / 2)
            noteLoss();
        broken = _broken;
        again = _watching = backlog() > 0;
        resume = _paused && !isBlocked();
        if (resume)
            _paused = false;
    }
    if (broken)
        close("the client is gone", true);
    else if (again)
        watchWritable();
    else if (_state == State::LINGERING)
        shutDownSending();
    if (resume)
        serveLines();
}

void RpcConnection::shutDownSending() {
    asio::error_code ignored; // a peer that is gone already needs no farewell
    _socket->socket.shutdown(asio::ip::tcp::socket::shutdown_send, ignored);
}

void RpcConnection::endWith(std::string_view line, const std::string& reason) {
    if (_state != State::SERVING)
        return;
    _closeReason = reason;
    _state = State::LINGERING;
    _lingerEnd = Clock::now() + _limits.lingerTime;
    bool sent = false;
    {
        const std::lock_guard lock(_mutex);
        if (!line.empty())
            append(line, true);
        sent = backlog() == 0;
        if (_paused) { // nobody reads any more: read on for the end of the connection alone
            _paused = false;
            asio::post(*_socket->loop, [self = shared_from_this()] { self->read(); });
        }
    }
    if (sent)
        shutDownSending();
    _owner.onSupervisionNeeded();
}

void RpcConnection::close(const std::string& reason, bool regular) {
    if (_state == State::CLOSED)
        return;
    const auto self = shared_from_this(); // the owner may let go of this
    _state = State::CLOSED;
    {
        const std::lock_guard lock(_mutex);
        _broken = true;
        _out.clear();
        _outBegin = 0;
        asio::error_code ignored; // the descriptor is released whatever close() says
        _socket->socket.close(ignored);
    }
    _frames.clear();
    _owner.onClosed(*this, _closeReason.empty() ? reason : _closeReason, regular || !_closeReason.empty());
}

bool RpcConnection::supervise(Clock::time_point now) {
    if (_state == State::CLOSED)
        return false;
    if (_state == State::LINGERING && now >= _lingerEnd) {
        close("its time for a last message is up", true);
        return false;
    }
    bool stalled = false;
    bool waiting = false;
    {
        const std::lock_guard lock(_mutex);
        waiting = backlog() > 0;
        stalled = _sent < _answersEnd && now - _lastProgress > _limits.stallTime;
    }
    if (stalled) {
        close("it has taken nothing of its answers for " + std::to_string(_limits.stallTime.count()) + " ms",
              false);
        return false;
    }
    return waiting || _state == State::LINGERING;
}

bool RpcConnection::flush() {
    const std::lock_guard lock(_mutex);
    writeOut();
    return backlog() == 0;
}

bool RpcConnection::isSlow() const {
    const std::lock_guard lock(_mutex);
    return _slow;
}

void RpcConnection::setSlow(bool slow) {
    const std::lock_guard lock(_mutex);
    _slow = slow;
}
