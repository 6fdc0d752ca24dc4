#include "xmlrpc/XmlRpcClient.h"

namespace XmlRpc {

bool XmlRpcClient::call(const std::string& host, int port, const std::string& method,
                        const XmlRpcValue& params, XmlRpcValue& result, double seconds) {
    const double time = seconds < 0.0 ? DEFAULT_SECONDS : seconds;
    XmlRpcFanOut::Answer answer = _calls.call({{host, port, method, params}}, time, time).front();
    setLastFailure(answer.failure);
    if (answer.answered)
        result = std::move(answer.result);
    return answer.answered;
}

} // namespace XmlRpc
