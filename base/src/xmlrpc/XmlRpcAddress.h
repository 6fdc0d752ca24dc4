#pragma once

#include <asio/ip/tcp.hpp>

#include <string>
#include <vector>

namespace XmlRpc {

/// Addresses of hosts, of IPv4 and IPv6.
class XmlRpcAddress {
public:
    /// The addresses behind a numeric address or a name. A name is asked of the system on the calling thread,
    /// which takes as long as the name service does.
    /// @param failure  is set to the reason when the result is empty
    static std::vector<asio::ip::tcp::endpoint> resolve(const std::string& host, int port,
                                                        std::string& failure);
    /// "10.0.0.1:4000", "[::1]:4000".
    static std::string describe(const std::string& host, int port);
};

} // namespace XmlRpc
