#include "xmlrpc/XmlRpcServer.h"

#include "platform/RateLimitedLog.h"
#include "platform/StringHelper.h"
#include "xmlrpc/HttpText.h"
#include "xmlrpc/XmlRpcAddress.h"
#include "xmlrpc/XmlRpcConnection.h"
#include "xmlrpc/XmlRpcMessage.h"
#include "xmlrpc/XmlRpcServerMethod.h"
#include "xmlrpc/XmlRpcSocket.h"
#include "xmlrpc/XmlRpcTime.h"

#include <asio/io_context.hpp>

#include <algorithm>
#include <atomic>
#include <list>
#include <map>
#include <mutex>
#include <optional>

namespace XmlRpc {

namespace {

using asio::ip::tcp;
using Clock = std::chrono::steady_clock;
using ConnectionPointer = std::shared_ptr<XmlRpcConnection>;

enum Status { FORBIDDEN = 403, NOT_FOUND = 404, NOT_ALLOWED = 405, LENGTH_REQUIRED = 411, UNSUPPORTED = 415 };

constexpr std::chrono::milliseconds RETRY_TIME{200}; ///< after the system had no descriptor for a client
/// For a request to show the secret, when there is no room. A busy caller has many connections to serve.
constexpr std::chrono::seconds SHOW_TIME{1};
constexpr std::chrono::milliseconds LONG_METHOD{100}; ///< from here on other connections get the time back
/// Takes the same time wherever the texts differ.
bool equalsSecret(const std::string& given, const std::string& secret) {
    unsigned difference = given.size() == secret.size() ? 0 : 1;
    for (std::size_t i = 0; i < given.size(); ++i)
        difference |= static_cast<unsigned char>(given[i] ^ secret[i % secret.size()]);
    return difference == 0;
}

} // namespace

struct XmlRpcServer::Impl {
    Impl();

    std::string listen(const tcp::endpoint& endpoint, int backlog);
    bool begin();
    void leave();
    bool serve(double seconds);
    bool turn(const std::optional<Clock::time_point>& deadline);
    void close();
    void accept();
    void acceptLater(const std::string& reason);
    void onAccepted(tcp::socket socket);
    void waitForRoom();
    int check(const HttpReader& request, const std::string& peer);
    std::string execute(const std::string& body);
    void giveBack(Clock::duration time);
    std::string call(const XmlRpcMessage::Call& call);

    asio::io_context loop{1};
    tcp::acceptor acceptor{loop};
    asio::steady_timer retry{loop};
    bool accepting = false;
    std::list<ConnectionPointer> connections; ///< the oldest one first
    XmlRpcConnection::Hooks hooks;
    std::map<std::string, XmlRpcServerMethod*> methods;
    std::string secret;
    Limits limits;
    Clock::time_point lastWork; ///< its end
    RateLimitedLog log;
    std::string failure;

    std::atomic<bool> exitRequested{false};
    std::atomic<int> descriptor{XmlRpcSocket::InvalidSocket};
    std::atomic<int> port{0};
    std::mutex mutex; ///< guards the next two
    bool working = false;
    bool closing = false;
};

XmlRpcServer::Impl::Impl() {
    hooks.check = [this](const HttpReader& request, const std::string& peer) { return check(request, peer); };
    hooks.execute = [this](const std::string& body) { return execute(body); };
    hooks.ended = [this](const ConnectionPointer& connection) {
        connections.remove(connection);
        accept();
    };
}

// ---- The socket.

std::string XmlRpcServer::Impl::listen(const tcp::endpoint& endpoint, int backlog) {
    asio::error_code failed;
    acceptor.open(endpoint.protocol(), failed);
    if (!failed)
        acceptor.set_option(tcp::acceptor::reuse_address(true), failed);
    if (!failed)
        acceptor.bind(endpoint, failed);
    if (!failed)
        acceptor.listen(backlog, failed);
    const tcp::endpoint own = failed ? tcp::endpoint() : acceptor.local_endpoint(failed);
    if (failed) {
        asio::error_code ignored; // close() releases the descriptor also when it fails
        acceptor.close(ignored);
        return failed.message();
    }
    XmlRpcSocket::keepFromChildren(acceptor.native_handle());
    descriptor = acceptor.native_handle();
    port = own.port();
    return {};
}

void XmlRpcServer::Impl::close() {
    descriptor = XmlRpcSocket::InvalidSocket;
    port = 0;
    asio::error_code ignored; // close() releases the descriptor also when it fails
    acceptor.close(ignored);
    retry.cancel();
    while (!connections.empty())
        connections.front()->end(); // which removes it
}

void XmlRpcServer::Impl::accept() {
    if (accepting || !acceptor.is_open())
        return;
    if (connections.size() >= limits.connections)
        return waitForRoom();
    accepting = true;
    acceptor.async_accept([this](const asio::error_code& failed, tcp::socket socket) {
        accepting = false;
        if (failed && failed != asio::error::operation_aborted)
            return acceptLater(failed.message());
        if (!failed)
            onAccepted(std::move(socket));
        accept();
    });
}

void XmlRpcServer::Impl::acceptLater(const std::string& reason) {
    log.warn("XmlRpcServer::work", "A connection couldn't be accepted", reason);
    accepting = true;
    retry.expires_after(RETRY_TIME);
    retry.async_wait([this](const asio::error_code&) {
        accepting = false;
        accept();
    });
}

void XmlRpcServer::Impl::onAccepted(tcp::socket socket) {
    XmlRpcSocket::keepFromChildren(socket.native_handle());
    connections.push_back(std::make_shared<XmlRpcConnection>(std::move(socket), hooks, limits.requestBytes,
                                                             XmlRpcTime::toDuration(limits.requestSeconds)));
    connections.back()->start();
}

/// New connections wait in the system until one ends. Those that are slow to show the secret are ended, so
/// strangers can't hold all of them for long.
void XmlRpcServer::Impl::waitForRoom() {
    const auto oldest = std::find_if(connections.begin(), connections.end(),
                                     [](const ConnectionPointer& each) { return !each->isAdmitted(); });
    if (oldest == connections.end())
        return; // each of them ends in time
    retry.expires_at((*oldest)->getBegin() + SHOW_TIME);
    retry.async_wait([this, slow = *oldest](const asio::error_code& cancelled) {
        if (cancelled || accepting)
            return;
        if (connections.size() >= limits.connections && slow->isSilent()) {
            log.warn("XmlRpcServer::work", "Too many connections", "the slowest one was ended");
            slow->end(); // which accepts the next one
        } else
            accept();
    });
}

// ---- A request.

int XmlRpcServer::Impl::check(const HttpReader& request, const std::string& peer) {
    if (!secret.empty() && !equalsSecret(request.getHeader(HttpText::SECRET_HEADER), secret) &&
        !equalsSecret(request.getQuery(HttpText::SECRET_QUERY), secret)) {
        log.warn("XmlRpcServer::work", "A request without the secret of this job was refused", peer);
        return FORBIDDEN;
    }
    if (request.getMethod() != "POST")
        return NOT_ALLOWED;
    if (request.getPath() != "/" && request.getPath() != "/RPC2")
        return NOT_FOUND;
    if (!request.hasLength())
        return LENGTH_REQUIRED;
    const std::string coding = StringHelper::toLower(request.getHeader("content-encoding"));
    return coding.empty() || coding == "identity" ? 0 : UNSUPPORTED;
}

std::string XmlRpcServer::Impl::execute(const std::string& body) {
    const Clock::time_point begin = Clock::now();
    std::string document;
    try {
        document = call(XmlRpcMessage::readCall(body));
    } catch (const std::exception& error) {
        document = XmlRpcMessage::writeFault(XmlRpcMessage::NOT_PARSED, error.what());
    }
    const Clock::duration taken = Clock::now() - begin;
    if (taken > LONG_METHOD)
        giveBack(taken);
    return document;
}

/// The time in which nobody served isn't counted.
void XmlRpcServer::Impl::giveBack(Clock::duration time) {
    for (const ConnectionPointer& connection : connections)
        connection->extend(time);
}

std::string XmlRpcServer::Impl::call(const XmlRpcMessage::Call& call) {
    const auto method = methods.find(call.method);
    if (method == methods.end())
        return XmlRpcMessage::writeFault(XmlRpcMessage::UNKNOWN_METHOD,
                                         "there is no method \"" + call.method + "\"");
    try {
        XmlRpcValue result;
        method->second->execute(call.params, result);
        return XmlRpcMessage::writeResult(result);
    } catch (const std::exception& error) {
        return XmlRpcMessage::writeFault(XmlRpcMessage::METHOD_FAILED, error.what());
    } catch (...) {
        return XmlRpcMessage::writeFault(XmlRpcMessage::METHOD_FAILED, "an exception of an unknown type");
    }
}

// ---- The loop.

/// Takes the loop for this thread. @return false when it can't be had
bool XmlRpcServer::Impl::begin() {
    const std::lock_guard<std::mutex> lock(mutex);
    if (working || closing || !acceptor.is_open())
        return false;
    working = true;
    return true;
}

void XmlRpcServer::Impl::leave() {
    const std::lock_guard<std::mutex> lock(mutex);
    working = false;
    lastWork = Clock::now();
    if (closing)
        close();
}

bool XmlRpcServer::Impl::serve(double seconds) {
    std::optional<Clock::time_point> deadline;
    if (seconds >= 0.0)
        deadline = Clock::now() + XmlRpcTime::toDuration(seconds);
    try {
        giveBack(Clock::now() - lastWork);
        while (turn(deadline)) {
        }
        return acceptor.is_open();
    } catch (const std::exception& error) {
        log.warn("XmlRpcServer::work", "The loop failed", error.what());
        return false;
    }
}

/// Runs the loop until it stops. @return whether to go on
bool XmlRpcServer::Impl::turn(const std::optional<Clock::time_point>& deadline) {
    // In this order, so that an exitWork() meanwhile is seen here or stops the loop.
    loop.restart();
    if (exitRequested.exchange(false))
        return false;
    {
        const std::lock_guard<std::mutex> lock(mutex);
        if (closing || !acceptor.is_open())
            return false;
    }
    accept();
    if (!deadline)
        loop.run();
    else if (Clock::now() < *deadline)
        loop.run_until(*deadline);
    else
        loop.poll();
    return !deadline || exitRequested || Clock::now() < *deadline;
}

// ---- The interface.

XmlRpcServer::XmlRpcServer() : _impl(std::make_unique<Impl>()) {}

XmlRpcServer::~XmlRpcServer() {
    shutdown();
}

bool XmlRpcServer::bindAndListen(int port, int backlog, const std::string& address) {
    const std::lock_guard<std::mutex> lock(_impl->mutex);
    if (_impl->working) {
        _impl->failure = "the server is at work";
        return false;
    }
    _impl->close();
    _impl->closing = false;
    const std::vector<tcp::endpoint> endpoints = XmlRpcAddress::resolve(address, port, _impl->failure);
    for (const tcp::endpoint& endpoint : endpoints) {
        _impl->failure = _impl->listen(endpoint, backlog);
        if (_impl->failure.empty())
            return true;
    }
    _impl->failure = XmlRpcAddress::describe(address, port) + " can't be listened on: " + _impl->failure;
    return false;
}

const std::string& XmlRpcServer::getLastFailure() const {
    return _impl->failure;
}

int XmlRpcServer::getPort() const {
    return _impl->port;
}

int XmlRpcServer::getfd() const {
    return _impl->descriptor;
}

void XmlRpcServer::addMethod(XmlRpcServerMethod& method) {
    _impl->methods[method.getName()] = &method;
}

void XmlRpcServer::setSecret(const std::string& secret) {
    _impl->secret = secret;
}

void XmlRpcServer::setLimits(const Limits& limits) {
    _impl->limits = limits;
}

bool XmlRpcServer::work(double seconds) {
    if (!_impl->begin())
        return false;
    const bool fine = _impl->serve(seconds);
    _impl->leave();
    return fine && getfd() != XmlRpcSocket::InvalidSocket;
}

void XmlRpcServer::exitWork() {
    _impl->exitRequested = true;
    _impl->loop.stop();
}

void XmlRpcServer::shutdown() {
    const std::lock_guard<std::mutex> lock(_impl->mutex);
    _impl->closing = true;
    _impl->descriptor = XmlRpcSocket::InvalidSocket;
    _impl->port = 0;
    if (_impl->working)
        _impl->loop.stop();
    else
        _impl->close();
}

} // namespace XmlRpc
