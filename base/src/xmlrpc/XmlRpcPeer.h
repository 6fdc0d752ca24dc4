#pragma once

#include "xmlrpc/XmlRpcClientBase.h"
#include "xmlrpc/XmlRpcServer.h"

#include <memory>
#include <string>

namespace XmlRpc {

/// A process that serves calls and makes calls: a server and a client with one secret.
class XmlRpcPeer {
public:
    /// With an XmlRpcServer and an XmlRpcClient.
    XmlRpcPeer();
    XmlRpcPeer(std::unique_ptr<XmlRpcServer> server, std::unique_ptr<XmlRpcClientBase> client);
    ~XmlRpcPeer();

    XmlRpcServer& getServer() { return *_server; }
    void setSecret(const std::string& secret);

    /// As XmlRpcClientBase::call(). The server doesn't serve meanwhile, unless another thread is in work().
    bool call(const std::string& host, int port, const std::string& method, const XmlRpcValue& params,
              XmlRpcValue& result, double seconds);
    /// The reason why the last call() failed.
    const std::string& getLastFailure() const { return _client->getLastFailure(); }

    // As those of XmlRpcServer.
    int getfd() const { return _server->getfd(); }
    bool work(double seconds) { return _server->work(seconds); }
    void exitWork() { _server->exitWork(); }

private:
    std::unique_ptr<XmlRpcServer> _server;
    std::unique_ptr<XmlRpcClientBase> _client;
};

} // namespace XmlRpc
