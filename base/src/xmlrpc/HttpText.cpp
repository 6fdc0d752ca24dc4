#include "xmlrpc/HttpText.h"

#include <http_parser.h>

namespace XmlRpc {

namespace {

std::string makeMessage(const std::string& firstLines, const char* type, const std::string& body) {
    return firstLines + "Content-Type: " + type + "\r\nContent-Length: " + std::to_string(body.size()) +
           "\r\nConnection: close\r\n\r\n" + body;
}

} // namespace

std::string HttpText::makeRequest(const std::string& host, int port, const std::string& secret,
                                  const std::string& body) {
    const std::string where = host.find(':') == std::string::npos ? host : "[" + host + "]";
    std::string lines = "POST /RPC2 HTTP/1.1\r\nHost: " + where + ":" + std::to_string(port) + "\r\n";
    if (!secret.empty())
        lines += "X-Orvex-Job: " + secret + "\r\n";
    return makeMessage(lines, "text/xml", body);
}

std::string HttpText::makeAnswer(const std::string& body) {
    return makeMessage("HTTP/1.1 200 OK\r\n", "text/xml", body);
}

std::string HttpText::makeRefusal(int status, const std::string& reason) {
    std::string lines = "HTTP/1.1 " + describeStatus(status) + "\r\n";
    if (status == HTTP_STATUS_METHOD_NOT_ALLOWED)
        lines += "Allow: POST\r\n";
    return makeMessage(lines, "text/plain", reason + "\n");
}

std::string HttpText::describeStatus(int status) {
    return std::to_string(status) + " " + http_status_str(static_cast<http_status>(status));
}

} // namespace XmlRpc
