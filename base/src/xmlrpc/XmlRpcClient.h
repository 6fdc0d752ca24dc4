#pragma once

#include "xmlrpc/XmlRpcClientBase.h"
#include "xmlrpc/XmlRpcFanOut.h"

namespace XmlRpc {

/// The client that calls over TCP.
class XmlRpcClient : public XmlRpcClientBase {
public:
    bool call(const std::string& host, int port, const std::string& method, const XmlRpcValue& params,
              XmlRpcValue& result, double seconds) override;
    void setSecret(const std::string& secret) override { _calls.setSecret(secret); }

private:
    XmlRpcFanOut _calls; ///< of one call each
};

} // namespace XmlRpc
