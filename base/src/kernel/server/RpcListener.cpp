#include "kernel/server/RpcListener.h"

#include "kernel/Raise.h"
#include "kernel/server/RpcSocket.h"

#include <asio/io_context.hpp>
#include <asio/ip/tcp.hpp>
#include <asio/ip/v6_only.hpp>
#include <asio/steady_timer.hpp>

#include <algorithm>
#include <chrono>
#include <vector>

namespace {

using asio::ip::address;
using asio::ip::tcp;

constexpr unsigned MAX_PORT = 65535;
constexpr int BACKLOG = 256;
constexpr std::chrono::milliseconds RETRY_TIME{200}; ///< after the system had no descriptor for a client

/// An IPv4 address as it is, also when it arrives in the clothes of IPv6.
address plain(const address& given) {
    if (given.is_v6() && given.to_v6().is_v4_mapped())
        return asio::ip::make_address_v4(asio::ip::v4_mapped, given.to_v6());
    return given;
}

/// Whether an interface of this host bears the address: then a socket can be bound to it.
bool isOurs(asio::io_context& loop, const address& candidate) {
    asio::error_code failed;
    tcp::socket probe(loop);
    probe.open(candidate.is_v4() ? tcp::v4() : tcp::v6(), failed);
    if (!failed)
        probe.bind(tcp::endpoint(candidate, 0), failed);
    return !failed;
}

std::vector<address> resolve(asio::io_context& loop, const std::string& client) {
    asio::error_code failed;
    tcp::resolver resolver(loop);
    const auto results = resolver.resolve(client, "", failed);
    if (failed)
        raise(NonRecoverableError("The client address \"" + client +
                                  "\" can't be resolved: " + failed.message()));
    std::vector<address> addresses;
    for (const auto& result : results)
        addresses.push_back(plain(result.endpoint().address()));
    // The system picks the addresses of this host's own clients.
    if (std::any_of(addresses.begin(), addresses.end(), [&](const address& a) { return isOurs(loop, a); })) {
        addresses.push_back(asio::ip::address_v4::loopback());
        addresses.push_back(asio::ip::address_v6::loopback());
    }
    return addresses;
}

} // namespace

struct RpcListener::Impl : std::enable_shared_from_this<RpcListener::Impl> {
    explicit Impl(std::shared_ptr<asio::io_context> context)
        : loop(std::move(context)), acceptor(*loop), retry(*loop) {}

    asio::error_code tryPort(const address& where, unsigned port);
    asio::error_code tryPort(unsigned port);
    void accept();
    void onAccepted(const asio::error_code& failed, std::unique_ptr<RpcSocket> socket);

    const std::shared_ptr<asio::io_context> loop;
    tcp::acceptor acceptor;
    asio::steady_timer retry;
    std::vector<address> welcome; ///< empty: everybody who can reach us
    AcceptCallback accepted;
    RefuseCallback refused;
    TroubleCallback trouble;
};

asio::error_code RpcListener::Impl::tryPort(const address& where, unsigned port) {
    const tcp::endpoint endpoint(where, static_cast<asio::ip::port_type>(port));
    asio::error_code ignored;
    acceptor.close(ignored); // a listener that failed on the port before
    asio::error_code failed;
    acceptor.open(endpoint.protocol(), failed);
    if (!failed)
        acceptor.set_option(tcp::acceptor::reuse_address(true), failed);
    if (!failed && where.is_v6() && where.is_unspecified())
        acceptor.set_option(asio::ip::v6_only(false), failed);
    if (!failed)
        acceptor.bind(endpoint, failed);
    if (!failed)
        acceptor.listen(BACKLOG, failed);
    return failed;
}

asio::error_code RpcListener::Impl::tryPort(unsigned port) {
    const bool network = !welcome.empty();
    const address first =
        network ? address(asio::ip::address_v6::any()) : address(asio::ip::address_v4::loopback());
    const address second =
        network ? address(asio::ip::address_v4::any()) : address(asio::ip::address_v6::loopback());
    const asio::error_code failed = tryPort(first, port);
    if (!failed || failed == asio::error::address_in_use)
        return failed;
    return tryPort(second, port); // a host that has only the other family
}

void RpcListener::Impl::accept() {
    auto socket = std::make_unique<RpcSocket>(loop);
    tcp::socket& target = socket->socket;
    acceptor.async_accept(target, [self = shared_from_this(),
                                   held = std::move(socket)](const asio::error_code& failed) mutable {
        self->onAccepted(failed, std::move(held));
    });
}

void RpcListener::Impl::onAccepted(const asio::error_code& failed, std::unique_ptr<RpcSocket> socket) {
    if (!acceptor.is_open())
        return;
    if (failed) {
        trouble(failed.message());
        retry.expires_after(RETRY_TIME);
        retry.async_wait([self = shared_from_this()](const asio::error_code& cancelled) {
            if (!cancelled && self->acceptor.is_open())
                self->accept();
        });
        return;
    }
    asio::error_code gone;
    const address peer = plain(socket->socket.remote_endpoint(gone).address());
    if (!gone) {
        socket->tune();
        try {
            if (welcome.empty() || std::find(welcome.begin(), welcome.end(), peer) != welcome.end())
                accepted(std::move(socket));
            else
                refused(std::move(socket), peer.to_string());
        } catch (const std::exception& error) { // this client is lost, the next one isn't
            trouble(error.what());
        }
    }
    if (acceptor.is_open())
        accept();
}

RpcListener::RpcListener(std::shared_ptr<asio::io_context> loop)
    : _impl(std::make_shared<Impl>(std::move(loop))) {}

RpcListener::~RpcListener() {
    close();
}

void RpcListener::open(const std::string& client, unsigned port, int range) {
    if (port > MAX_PORT)
        raise(NonRecoverableError("The server port must be 0 to " + std::to_string(MAX_PORT) + ", not " +
                                  std::to_string(port)));
    if (!client.empty())
        _impl->welcome = resolve(*_impl->loop, client);
    const unsigned tries = range > 1 ? static_cast<unsigned>(range) : 1;
    const unsigned last = std::min(MAX_PORT, port + tries - 1);
    asio::error_code failed;
    for (unsigned candidate = port; candidate <= last; ++candidate) {
        failed = _impl->tryPort(candidate);
        if (!failed)
            return;
    }
    if (range == -1)
        failed = _impl->tryPort(0);
    if (failed)
        raise(NonRecoverableError((last == port ? "The server can't listen on port " + std::to_string(port)
                                                : "The server can't listen on any of the ports " +
                                                      std::to_string(port) + " to " + std::to_string(last)) +
                                  ": " + failed.message()));
}

unsigned RpcListener::getPort() const {
    asio::error_code failed;
    const tcp::endpoint endpoint = _impl->acceptor.local_endpoint(failed);
    return failed ? 0 : endpoint.port();
}

void RpcListener::start(AcceptCallback accepted, RefuseCallback refused, TroubleCallback trouble) {
    _impl->accepted = std::move(accepted);
    _impl->refused = std::move(refused);
    _impl->trouble = std::move(trouble);
    _impl->accept();
}

void RpcListener::close() {
    asio::error_code ignored; // close() releases the descriptor also when it fails
    _impl->acceptor.close(ignored);
    _impl->retry.cancel();
}
