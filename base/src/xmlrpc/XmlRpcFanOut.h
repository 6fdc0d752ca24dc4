#pragma once

#include "xmlrpc/XmlRpcAnswer.h"
#include "xmlrpc/XmlRpcValue.h"

#include <cstddef>
#include <functional>
#include <string>
#include <vector>

namespace XmlRpc {

/// Calls many servers at the same time, on the calling thread. One thread at a time.
class XmlRpcFanOut {
public:
    struct Call {
        std::string host; ///< a numeric address or a name
        int port = 0;
        std::string method;
        XmlRpcValue params; ///< an array has an element for each parameter; any other value is one parameter
    };
    using Answer = XmlRpcAnswer;
    /// Called on the calling thread for each answer and each failure, as it arrives.
    using Callback = std::function<void(std::size_t index, const Answer& answer)>;

    static constexpr std::size_t MAX_CONNECTIONS = 256; ///< at the same time

    /// The secret that the servers ask for.
    void setSecret(const std::string& secret) { _secret = secret; }

    /// Returns the answers in the order of the calls.
    /// @param totalSeconds  time for all calls. Names of hosts are asked of the system before it begins to
    /// count.
    /// @param callSeconds   time for each call: to connect, to send, to get the answer
    std::vector<Answer> call(const std::vector<Call>& calls, double totalSeconds, double callSeconds,
                             const Callback& arrived = {}) const;

private:
    std::string _secret;
};

} // namespace XmlRpc
