#include "kernel/server/RpcConnection.h"

#include "kernel/server/RpcMessage.h"
#include "kernel/server/RpcSocket.h"

#include <asio/post.hpp>

#include <algorithm>
#include <utility>

namespace {

constexpr std::size_t KEPT_CAPACITY = std::size_t(256) << 10; ///< [bytes] of an idle send buffer
constexpr std::size_t MAX_READ = std::size_t(256) << 10;      ///< [bytes] between two looks at the budget
constexpr const char* LEFT = "the client closed the connection";

std::string addressOf(const asio::ip::tcp::socket& socket) {
    asio::error_code failed;
    const asio::ip::tcp::endpoint endpoint = socket.remote_endpoint(failed);
    if (failed)
        return "unknown address";
    return endpoint.address().to_string() + ":" + std::to_string(endpoint.port());
}

} // namespace

RpcConnection::RpcConnection(std::unique_ptr<RpcSocket> socket, const ServerLimits& limits,
                             std::shared_ptr<RequestBudget> budget, Owner& owner)
    : _limits(limits), _owner(owner), _socket(std::move(socket)), _address(addressOf(_socket->socket)),
      _frames(limits.handshakeFrameSize), _budget(std::move(budget)) {}

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
        asio::buffer(room.data(), std::min(room.size(), MAX_READ)),
        [self = shared_from_this()](const asio::error_code& failed, std::size_t size) {
            self->_reading = false;
            try {
                if (!failed)
                    self->onRead(size);
                else if (failed == asio::error::eof && self->_state == State::SERVING)
                    self->onInputEnded();
                else
                    self->onReadFailed(failed == asio::error::eof ? LEFT : failed.message());
            } catch (const std::exception& error) { // no memory for what it sends
                self->close(error.what(), false);
            }
        });
}

void RpcConnection::onReadFailed(const std::string& why) {
    if (_received > 0 && _state == State::SERVING)
        close(why + " in the middle of a request, after " + std::to_string(_received) + " bytes of it",
              false);
    else
        close(why, true);
}

void RpcConnection::onRead(std::size_t size) {
    if (_state == State::CLOSED)
        return;
    if (_state == State::LINGERING) { // what comes now is read only so that the peer gets our last line
        _lingerRead += size;
        if (_lingerRead < _frames.getLimit())
            read();
        return;
    }
    _frames.commit(size);
    _lastRead = Clock::now();
    countReceived();
    serveLines();
}

void RpcConnection::onInputEnded() {
    std::size_t pending = 0;
    {
        const std::lock_guard lock(_mutex);
        _inputEnded = true;
        pending = _pending;
    }
    if (pending > 0) {
        // A peer that has gone altogether looks the same, until something is sent to it.
        send(RpcMessage::notification("server.requestsEnded",
                                      "{\"unanswered\":" + std::to_string(pending) + "}"));
        _socket->socket.async_wait(asio::ip::tcp::socket::wait_error,
                                   [self = shared_from_this()](const asio::error_code&) {
                                       self->close("the client is gone", true);
                                   });
    }
    serveLines();
}

/// Ends the connection of a peer that sends no more.
void RpcConnection::endWhenAnswered() {
    bool open = false;
    {
        const std::lock_guard lock(_mutex);
        open = _paused || _pending > 0 || _sent < _answersEnd;
    }
    if (!open && _state == State::SERVING)
        onReadFailed(LEFT);
}

void RpcConnection::countReceived() {
    _budget->moveReceived(_received, _frames.size());
    _received = _frames.size();
}

bool RpcConnection::lacksRoom() const {
    return _budget->isFull() && _received + _queued > _limits.requestAllowance && !_beyondBudget;
}

std::size_t RpcConnection::getHeldBack() const {
    const std::lock_guard lock(_mutex);
    return _paused && !isBlocked() && lacksRoom() ? _received : 0;
}

void RpcConnection::goOnBeyondBudget() {
    _beyondBudget = true;
    _lastRead = Clock::now();
    serveLines();
}

void RpcConnection::serveLines() {
    bool paused = false;
    while (_state == State::SERVING) {
        {
            const std::lock_guard lock(_mutex);
            paused = _paused = isBlocked() || lacksRoom();
            if (paused)
                break;
        }
        const std::optional<std::string_view> line = _frames.next();
        if (line) {
            _beyondBudget = false;
            countReceived();
            _owner.onLine(*this, *line);
        } else if (_frames.isTooLong())
            _owner.onTooLong(*this);
        else
            break;
    }
    if (_state == State::LINGERING) {
        _frames.clear();
        countReceived();
    }
    if (_inputEnded && _state == State::SERVING)
        endWhenAnswered();
    else if (!paused)
        read();
    else if (lacksRoom()) // others make room: looked at from time to time
        _owner.onSupervisionNeeded();
}

bool RpcConnection::isBlocked() const {
    return _pending >= _limits.pendingRequests || backlog() > _limits.answerBacklog;
}

std::shared_ptr<void> RpcConnection::beginRequest(std::size_t size) {
    {
        const std::lock_guard lock(_mutex);
        ++_pending;
    }
    _queued += size;
    _budget->addQueued(size);
    return {nullptr, [self = shared_from_this(), size](void*) {
                self->_queued -= size;
                self->_budget->removeQueued(size);
            }};
}

void RpcConnection::finishRequest(std::string_view line) {
    const std::lock_guard lock(_mutex);
    --_pending;
    if (!line.empty())
        append(line, true);
    if ((_paused && !isBlocked()) || (_inputEnded && _pending == 0)) {
        _paused = false;
        asio::post(*_socket->loop, [weak = weak_from_this()] {
            if (const auto self = weak.lock())
                self->serveLines();
        });
    }
}

std::size_t RpcConnection::getUnsent() const {
    const std::lock_guard lock(_mutex);
    return backlog();
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
    else if (_inputEnded)
        resume = true;
    if (resume)
        serveLines();
}

void RpcConnection::shutDownSending() {
    asio::error_code ignored; // a peer that is gone already needs no farewell
    _socket->socket.shutdown(asio::ip::tcp::socket::shutdown_send, ignored);
    if (_inputEnded)
        read(); // which tells the end again, and the connection is closed
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
        asio::error_code ignored; // close() releases the descriptor also when it fails
        _socket->socket.close(ignored);
    }
    _frames.clear();
    countReceived();
    _owner.onClosed(*this, _closeReason.empty() ? reason : _closeReason, regular || !_closeReason.empty());
}

bool RpcConnection::supervise(Clock::time_point now) {
    if (_state == State::CLOSED)
        return false;
    if (_state == State::LINGERING && now >= _lingerEnd) {
        close("its time for a last message is up", true);
        return false;
    }
    _beyondBudget = _beyondBudget && _budget->isFull();
    if (_beyondBudget && now - _lastRead > _limits.stallTime) {
        close("a request that others wait for stands still, after " + std::to_string(_received) +
                  " bytes of it",
              false);
        return false;
    }
    bool stalled = false;
    bool waiting = false;
    bool resume = false;
    {
        const std::lock_guard lock(_mutex);
        waiting = backlog() > 0 || _beyondBudget || (_paused && lacksRoom());
        resume = _paused && !isBlocked() && !lacksRoom();
        stalled = _sent < _answersEnd && now - _lastProgress > _limits.stallTime;
    }
    if (stalled) {
        close("it has taken nothing of its answers for " + std::to_string(_limits.stallTime.count()) + " ms",
              false);
        return false;
    }
    if (resume)
        serveLines();
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
