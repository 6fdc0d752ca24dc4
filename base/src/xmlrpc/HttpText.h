#pragma once

#include <string>

namespace XmlRpc {

/// The texts of HTTP that this floor sends. Each message ends its connection.
class HttpText {
public:
    /// The header line that names the job's secret, in lower case.
    static constexpr const char* SECRET_HEADER = "x-orvex-job";
    /// The key of the secret in the query of the request line.
    static constexpr const char* SECRET_QUERY = "job";

    /// A request that posts `body`.
    /// @param secret  empty: the request has none
    static std::string makeRequest(const std::string& host, int port, const std::string& secret,
                                   const std::string& body);
    /// The answer to a call.
    static std::string makeAnswer(const std::string& body);
    /// The answer to a request that is refused.
    static std::string makeRefusal(int status, const std::string& reason);
    /// "403 Forbidden" for example.
    static std::string describeStatus(int status);
    static constexpr const char* CONTINUE = "HTTP/1.1 100 Continue\r\n\r\n";
};

} // namespace XmlRpc
