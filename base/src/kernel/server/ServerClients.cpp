#include "kernel/server/ServerClients.h"

#include "kernel/Properties.h"

#include "platform/Time.h"

#include <algorithm>

namespace {

bool isReader(const RpcConnection& connection) {
    return connection.getPeer().authenticated && !connection.getPeer().control;
}

} // namespace

void ServerClients::add(Connection connection) {
    const std::lock_guard lock(_mutex);
    _connections.push_back(std::move(connection));
}

void ServerClients::remove(const RpcConnection& connection) {
    const std::lock_guard lock(_mutex);
    std::erase_if(_connections, [&](const Connection& each) { return each.get() == &connection; });
}

void ServerClients::admit(RpcConnection& connection, bool control, const std::string& client) {
    const std::lock_guard lock(_mutex);
    connection.getPeer().authenticated = true;
    connection.getPeer().control = control;
    connection.getPeer().client = client;
    connection.liftHandshakeLimit();
}

std::size_t ServerClients::count(bool authenticated) const {
    const std::lock_guard lock(_mutex);
    return static_cast<std::size_t>(
        std::count_if(_connections.begin(), _connections.end(), [&](const Connection& connection) {
            return connection->getPeer().authenticated == authenticated;
        }));
}

std::size_t ServerClients::getNumberStrangers() const {
    return count(false);
}

std::size_t ServerClients::getNumberClients() const {
    return count(true);
}

bool ServerClients::hasReaders() const {
    return getCommandClient() != nullptr;
}

ServerClients::Connection ServerClients::getOldestStranger() const {
    const std::lock_guard lock(_mutex);
    const auto found = std::find_if(_connections.begin(), _connections.end(),
                                    [](const Connection& each) { return !each->getPeer().authenticated; });
    return found == _connections.end() ? nullptr : *found;
}

ServerClients::Connection ServerClients::getCommandClient() const {
    const std::lock_guard lock(_mutex);
    const auto found = std::find_if(_connections.begin(), _connections.end(),
                                    [](const Connection& each) { return isReader(*each); });
    return found == _connections.end() ? nullptr : *found;
}

std::vector<ServerClients::Connection> ServerClients::getAll() const {
    const std::lock_guard lock(_mutex);
    return _connections;
}

std::vector<Properties> ServerClients::describe() const {
    std::vector<Properties> clients;
    const std::lock_guard lock(_mutex);
    for (const Connection& connection : _connections) {
        const RpcConnection::Peer& peer = connection->getPeer();
        if (!peer.authenticated)
            continue;
        const std::chrono::duration<double> since = peer.since.time_since_epoch();
        Properties client;
        client.set("client", peer.client);
        client.set("address", connection->getAddress());
        client.set("since", since.count());
        client.set("access", peer.control ? "control" : "commands");
        clients.push_back(client);
    }
    return clients;
}

void ServerClients::sendNotice(std::string_view notification, std::size_t lines) {
    const std::lock_guard lock(_mutex);
    for (const Connection& connection : _connections)
        if (isReader(*connection))
            connection->sendNotice(notification, lines);
}

void ServerClients::sendToAll(std::string_view line) {
    const std::lock_guard lock(_mutex);
    for (const Connection& connection : _connections)
        if (connection->getPeer().authenticated)
            connection->send(line);
}

void ServerClients::flush(std::chrono::milliseconds time) {
    std::vector<Connection> waiting;
    for (Connection& connection : getAll()) {
        if (connection->flush())
            connection->setSlow(false);
        else if (!connection->isSlow())
            waiting.push_back(std::move(connection));
    }
    const auto end = std::chrono::steady_clock::now() + time;
    while (!waiting.empty() && std::chrono::steady_clock::now() < end) {
        Platform::time().sleepMilliseconds(1);
        std::erase_if(waiting, [](const Connection& connection) { return connection->flush(); });
    }
    for (const Connection& connection : waiting)
        connection->setSlow(true);
}
