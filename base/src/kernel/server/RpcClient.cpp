#include "kernel/server/RpcClient.h"

#include "kernel/OrvexVersion.h"
#include "kernel/Properties.h"
#include "kernel/Raise.h"
#include "kernel/server/FrameBuffer.h"
#include "kernel/server/RpcMessage.h"
#include "kernel/server/RpcSocket.h"
#include "kernel/server/SessionRecord.h"

#include "platform/Io.h"

#include <asio/connect.hpp>
#include <asio/io_context.hpp>
#include <asio/posix/stream_descriptor.hpp>
#include <asio/post.hpp>
#include <asio/write.hpp>

#include <atomic>
#include <charconv>

namespace {

using Clock = std::chrono::steady_clock;
using Deadline = std::optional<Clock::time_point>;
using asio::ip::tcp;

Deadline deadlineOf(const RpcClient::Time& time) {
    return time ? Deadline(Clock::now() + *time) : std::nullopt;
}

[[noreturn]] void fail(RpcClientError::Trouble trouble, const std::string& message) {
    raise(RpcClientError(trouble, message));
}

} // namespace

struct RpcClient::Impl {
    /// Waits for one event. @return false when the deadline came first
    bool step(const Deadline& deadline);
    bool waitUntil(const bool& done, const Deadline& deadline);
    void startReading();
    std::optional<RpcMessage> nextMessage(const Deadline& deadline);
    void write(const std::string& text, const Deadline& deadline);
    void abandon(const bool& done);
    bool connectTo(const std::string& address, unsigned port, const Deadline& deadline, std::string& reason);
    void shakeHands(const SessionKey& key, SessionHandshake::Access access, const std::string& client,
                    const Deadline& deadline);
    RpcMessage expectMessage(const Deadline& deadline);
    static Reply toReply(const RpcMessage& message);
    void notify(const RpcMessage& message) const {
        if (callback)
            callback(message.method, message.params.empty() ? std::string_view("{}") : message.params);
    }
    bool takeInterruption() {
        if (!interruptCallback || interruptions == 0)
            return false;
        --interruptions;
        return true;
    }
    std::string lostText() const { return lost.empty() ? "The server closed the connection" : lost; }

    std::shared_ptr<asio::io_context> context = std::make_shared<asio::io_context>(1);
    std::unique_ptr<RpcSocket> socket;
    FrameBuffer frames{Properties::MAX_TEXT_SIZE};
    NotificationCallback callback;
    InterruptCallback interruptCallback;
    std::atomic<unsigned> interruptions{0}; ///< that wait for the callback
    std::string where;
    std::string lost; ///< why reading ended
    bool reading = false;
    bool ended = false;
    unsigned long lastId = 0;
};

bool RpcClient::Impl::step(const Deadline& deadline) {
    context->restart();
    return (deadline ? context->run_one_until(*deadline) : context->run_one()) > 0;
}

bool RpcClient::Impl::waitUntil(const bool& done, const Deadline& deadline) {
    while (!done)
        if (!step(deadline))
            return done;
    return true;
}

void RpcClient::Impl::startReading() {
    if (reading || ended)
        return;
    reading = true;
    const std::span<char> room = frames.prepare();
    socket->socket.async_read_some(
        asio::buffer(room.data(), room.size()), [this](const asio::error_code& failed, std::size_t size) {
            reading = false;
            frames.commit(size);
            if (failed) {
                ended = true;
                if (failed != asio::error::eof)
                    lost = "The connection to the server broke: " + failed.message();
            }
        });
}

/// None at the deadline. The message's views are valid until the next call.
std::optional<RpcMessage> RpcClient::Impl::nextMessage(const Deadline& deadline) {
    for (;;) {
        if (const std::optional<std::string_view> line = frames.next()) {
            RpcMessage message;
            if (const std::optional<RpcFault> fault = message.parse(*line))
                fail(RpcClientError::REFUSED, where + " doesn't speak our protocol: " + fault->message);
            return message;
        }
        if (ended)
            fail(RpcClientError::LOST, lostText());
        while (takeInterruption())
            if (!interruptCallback())
                fail(RpcClientError::GIVEN_UP, "The answer wasn't waited for");
        startReading();
        if (!step(deadline))
            return std::nullopt;
    }
}

RpcMessage RpcClient::Impl::expectMessage(const Deadline& deadline) {
    const std::optional<RpcMessage> message = nextMessage(deadline);
    if (!message)
        fail(RpcClientError::TIMED_OUT, "No answer from " + where + " in time");
    return *message;
}

/// Ends the connection, and with it the operation that sets `done`.
void RpcClient::Impl::abandon(const bool& done) {
    socket->socket.close();
    ended = true;
    waitUntil(done, std::nullopt);
}

void RpcClient::Impl::write(const std::string& text, const Deadline& deadline) {
    bool done = false;
    asio::error_code failed;
    asio::async_write(socket->socket, asio::buffer(text), [&](const asio::error_code& error, std::size_t) {
        done = true;
        failed = error;
    });
    while (!done) { // what the server sends meanwhile is read: it might wait for that
        startReading();
        if (!step(deadline))
            break;
        if (!done && takeInterruption()) {
            abandon(done);
            fail(RpcClientError::GIVEN_UP, "The request wasn't sent");
        }
    }
    if (!done) {
        abandon(done);
        fail(RpcClientError::TIMED_OUT, "A request couldn't be sent to " + where + " in time");
    }
    if (failed) {
        ended = true;
        fail(RpcClientError::LOST, "The connection to the server broke: " + failed.message());
    }
}

bool RpcClient::Impl::connectTo(const std::string& address, unsigned port, const Deadline& deadline,
                                std::string& reason) {
    socket = std::make_unique<RpcSocket>(context);
    tcp::resolver resolver(*context);
    bool done = false;
    asio::error_code failed;
    tcp::resolver::results_type endpoints;
    resolver.async_resolve(address, std::to_string(port),
                           [&](const asio::error_code& error, const tcp::resolver::results_type& found) {
                               done = true;
                               failed = error;
                               endpoints = found;
                           });
    if (!waitUntil(done, deadline)) {
        resolver.cancel();
        waitUntil(done, std::nullopt);
        failed = asio::error::timed_out;
    }
    if (!failed) {
        done = false;
        asio::async_connect(socket->socket, endpoints,
                            [&](const asio::error_code& error, const tcp::endpoint&) {
                                done = true;
                                failed = error;
                            });
        if (!waitUntil(done, deadline)) {
            socket->socket.close();
            waitUntil(done, std::nullopt);
            failed = asio::error::timed_out;
        }
    }
    if (failed)
        reason +=
            (reason.empty() ? "" : "; ") + address + ":" + std::to_string(port) + ": " + failed.message();
    return !failed;
}

void RpcClient::Impl::shakeHands(const SessionKey& key, SessionHandshake::Access access,
                                 const std::string& client, const Deadline& deadline) {
    const RpcMessage hello = expectMessage(deadline);
    const std::optional<SessionHandshake::Greeting> greeting = SessionHandshake::Greeting::fromMessage(hello);
    if (!greeting) {
        if (!hello.error.empty())
            fail(RpcClientError::REFUSED, toReply(hello).message);
        fail(RpcClientError::REFUSED, where + " doesn't greet like a server of ours");
    }
    const std::string mismatch = SessionHandshake::compareVersions(greeting->protocol, greeting->product,
                                                                   SessionRecord::PROTOCOL_VERSION,
                                                                   OrvexVersion::getVersionedProductName());
    if (!mismatch.empty())
        fail(RpcClientError::REFUSED, mismatch);
    const std::string nonce = SessionKey::makeNonce();
    write(RpcMessage::request(std::to_string(++lastId), SessionHandshake::AUTHENTICATE,
                              SessionHandshake::answer(*greeting, key, nonce, access, client)),
          deadline);
    const Reply reply = toReply(expectMessage(deadline));
    if (reply.failed)
        fail(RpcClientError::REFUSED, reply.message);
    if (!SessionHandshake::isProven(reply.result, key, greeting->nonce, nonce))
        fail(RpcClientError::REFUSED, "The server at " + where + " doesn't hold the session's key");
}

RpcClient::Reply RpcClient::Impl::toReply(const RpcMessage& message) {
    Reply reply;
    reply.failed = !message.error.empty();
    reply.bill = message.bill;
    if (!reply.failed) {
        reply.result = message.result;
        return reply;
    }
    const Properties error(message.error);
    reply.code = error.getInt("code");
    reply.message = error.getString("message");
    reply.data = error.hasName("data") ? error.getProperties("data").toString() : Properties().toString();
    return reply;
}

RpcClient::RpcClient() : _impl(std::make_unique<Impl>()) {}

RpcClient::~RpcClient() {
    close();
}

void RpcClient::setNotificationCallback(NotificationCallback callback) {
    _impl->callback = std::move(callback);
}

void RpcClient::setInterruptCallback(InterruptCallback callback) {
    _impl->interruptCallback = std::move(callback);
    _impl->interruptions = 0;
}

void RpcClient::interrupt() {
    ++_impl->interruptions;
    asio::post(*_impl->context, [] {}); // ends a wait for the next event
}

void RpcClient::connect(const Target& target, SessionHandshake::Access access, const std::string& client,
                        std::chrono::milliseconds time) {
    close();
    const Deadline deadline = deadlineOf(time);
    std::string reason;
    for (const std::string& address : target.addresses) {
        _impl->where = address + ":" + std::to_string(target.port);
        if (!_impl->connectTo(address, target.port, deadline, reason))
            continue;
        _impl->socket->tune();
        _impl->ended = false;
        _impl->lost.clear();
        _impl->shakeHands(target.key, access, client, deadline);
        return;
    }
    fail(RpcClientError::CANNOT_CONNECT, "No server can be reached: " + reason);
}

bool RpcClient::isConnected() const {
    return _impl->socket && _impl->socket->socket.is_open() && !_impl->ended;
}

void RpcClient::close() {
    if (!_impl->socket)
        return;
    asio::error_code ignored; // close() releases the descriptor also when it fails
    _impl->socket->socket.close(ignored);
    _impl->context->restart();
    _impl->context->run(); // the read that was under way reports its end
    _impl->socket.reset();
    _impl->frames.clear();
    _impl->ended = true;
}

RpcClient::Reply RpcClient::call(const std::string& method, const std::string& params, const Time& time) {
    const unsigned long wanted = send(method, params);
    const Deadline deadline = deadlineOf(time);
    for (;;) {
        const Time left = deadline
                              ? Time(std::chrono::ceil<std::chrono::milliseconds>(*deadline - Clock::now()))
                              : std::nullopt;
        unsigned long id = 0;
        Reply reply = receive(id, left);
        if (id == wanted)
            return reply;
    }
}

unsigned long RpcClient::send(const std::string& method, const std::string& params) {
    if (!isConnected())
        fail(RpcClientError::LOST, _impl->lostText());
    _impl->write(RpcMessage::request(std::to_string(++_impl->lastId), method, params), std::nullopt);
    return _impl->lastId;
}

RpcClient::Reply RpcClient::receive(unsigned long& id, const Time& time) {
    const Deadline deadline = deadlineOf(time);
    for (;;) {
        const RpcMessage message = _impl->expectMessage(deadline);
        if (message.isRequest()) {
            _impl->notify(message);
            continue;
        }
        const std::from_chars_result parsed =
            std::from_chars(message.id.data(), message.id.data() + message.id.size(), id);
        if (parsed.ec != std::errc()) // the server couldn't read a request of ours
            fail(RpcClientError::REFUSED, Impl::toReply(message).message);
        return Impl::toReply(message);
    }
}

void RpcClient::waitForInput(int descriptor) {
    const int own = Platform::io().duplicate(descriptor);
    if (own < 0)
        fail(RpcClientError::LOST, "The input can't be waited for");
    asio::posix::stream_descriptor input(*_impl->context, own);
    bool ready = false;
    input.async_wait(asio::posix::stream_descriptor::wait_read,
                     [&](const asio::error_code&) { ready = true; });
    while (!ready && !_impl->ended) {
        while (const std::optional<std::string_view> line = _impl->frames.next()) {
            RpcMessage message;
            if (!message.parse(*line) && message.isRequest())
                _impl->notify(message);
        }
        _impl->startReading();
        _impl->step(std::nullopt);
    }
    input.cancel();
    _impl->waitUntil(ready, std::nullopt);
}

bool RpcClient::waitForEnd(std::chrono::milliseconds time) {
    const Deadline deadline = deadlineOf(time);
    try {
        while (const std::optional<RpcMessage> message = _impl->nextMessage(deadline))
            if (message->isRequest())
                _impl->notify(*message);
    } catch (const RpcClientError& error) {
        if (error.getTrouble() != RpcClientError::LOST)
            throw;
        close(); // the server waits for that
        return true;
    }
    return false;
}
