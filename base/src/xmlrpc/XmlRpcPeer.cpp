#include "xmlrpc/XmlRpcPeer.h"

#include "xmlrpc/XmlRpcClient.h"

namespace XmlRpc {

XmlRpcPeer::XmlRpcPeer() : XmlRpcPeer(std::make_unique<XmlRpcServer>(), std::make_unique<XmlRpcClient>()) {}

XmlRpcPeer::XmlRpcPeer(std::unique_ptr<XmlRpcServer> server, std::unique_ptr<XmlRpcClientBase> client)
    : _server(std::move(server)), _client(std::move(client)) {}

XmlRpcPeer::~XmlRpcPeer() = default;

void XmlRpcPeer::setSecret(const std::string& secret) {
    _server->setSecret(secret);
    _client->setSecret(secret);
}

bool XmlRpcPeer::call(const std::string& host, int port, const std::string& method, const XmlRpcValue& params,
                      XmlRpcValue& result, double seconds) {
    return _client->call(host, port, method, params, result, seconds);
}

} // namespace XmlRpc
