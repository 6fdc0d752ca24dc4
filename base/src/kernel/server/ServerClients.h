#pragma once

#include "kernel/server/RpcConnection.h"

#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

class Properties;

/// The connections of a server. The service thread adds, admits and removes; any thread may speak to them
/// all.
class ServerClients {
public:
    using Connection = std::shared_ptr<RpcConnection>;

    void add(Connection connection);
    void remove(const RpcConnection& connection);
    /// Notes that the client has proved its key.
    void admit(RpcConnection& connection, bool control, const std::string& client);

    std::size_t getNumberStrangers() const;
    std::size_t getNumberClients() const;
    /// Whether any client reads the console.
    bool hasReaders() const;
    /// The stranger that has waited longest, null when there is none.
    Connection getOldestStranger() const;
    /// The client that runs commands, null when there is none.
    Connection getCommandClient() const;
    std::vector<Connection> getAll() const;
    /// Describes the connected clients.
    std::vector<Properties> describe() const;

    /// Sends console output to those who read it.
    void sendNotice(std::string_view notification, std::size_t lines);
    /// Sends a line to every client.
    void sendToAll(std::string_view line);
    /// Waits until the clients' sockets have taken what was sent, or until the time is up; a client that
    /// failed to keep up last time isn't waited for.
    void flush(std::chrono::milliseconds time);

private:
    std::size_t count(bool authenticated) const;

    mutable std::mutex _mutex;            ///< taken before a connection's own
    std::vector<Connection> _connections; ///< in the order of their arrival
};
