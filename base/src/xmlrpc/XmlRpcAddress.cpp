#include "xmlrpc/XmlRpcAddress.h"

#include <asio/io_context.hpp>

namespace XmlRpc {

namespace {

constexpr int MAX_PORT = 65535;

using asio::ip::tcp;

} // namespace

std::vector<tcp::endpoint> XmlRpcAddress::resolve(const std::string& host, int port, std::string& failure) {
    if (port < 0 || port > MAX_PORT) {
        failure = "the port " + std::to_string(port) + " isn't one";
        return {};
    }
    const auto portNumber = static_cast<asio::ip::port_type>(port);
    asio::error_code failed;
    const asio::ip::address numeric = asio::ip::make_address(host, failed);
    if (!failed)
        return {tcp::endpoint(numeric, portNumber)};
    asio::io_context loop;
    tcp::resolver resolver(loop); // without a thread: the question is put on the calling thread
    std::vector<tcp::endpoint> endpoints;
    for (const auto& entry : resolver.resolve(host, "", failed))
        endpoints.emplace_back(entry.endpoint().address(), portNumber);
    if (endpoints.empty())
        failure = "the host \"" + host + "\" has no address: " + failed.message();
    return endpoints;
}

std::string XmlRpcAddress::describe(const std::string& host, int port) {
    return (host.find(':') == std::string::npos ? host : "[" + host + "]") + ":" + std::to_string(port);
}

} // namespace XmlRpc
