#include "xmlrpc/XmlRpcServer.h"

#include "unit/xmlrpc/AtWork.h"
#include "xmlrpc/XmlRpcSocket.h"

#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <future>
#include <memory>
#include <vector>

using XmlRpc::XmlRpcServer;
using XmlRpc::XmlRpcSocket;
using XmlRpc::XmlRpcValue;

namespace {

/// Sends `bytes` to a port of this host and returns all that comes back until the end.
std::string talk(int port, const std::string& bytes, bool endsThere) {
    const int descriptor = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<std::uint16_t>(port));
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    EXPECT_EQ(connect(descriptor, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
    static_cast<void>(send(descriptor, bytes.data(), bytes.size(), MSG_NOSIGNAL)); // may be refused meanwhile
    if (endsThere)
        shutdown(descriptor, SHUT_WR);
    std::string answer;
    char buffer[4096];
    for (ssize_t size = 0; (size = recv(descriptor, buffer, sizeof buffer, 0)) > 0;)
        answer.append(buffer, static_cast<std::size_t>(size));
    close(descriptor);
    return answer;
}

std::string post(const std::string& headers, const std::string& body, const std::string& target = "/RPC2") {
    return "POST " + target + " HTTP/1.1\r\n" + headers + "\r\n" + body;
}

std::size_t countDescriptors() {
    const std::filesystem::directory_iterator all("/proc/self/fd");
    return static_cast<std::size_t>(std::distance(begin(all), end(all)));
}

} // namespace

TEST(XmlRpcServer, HostileRequestsAreRefusedAndTheServerLivesOn) {
    XmlRpcServer::Limits limits;
    limits.requestBytes = 1000;
    limits.requestSeconds = 0.5;
    limits.connections = 4;
    AtWork server(limits);
    const std::string secret = "X-Orvex-Job: 5ec4e7\r\n";
    const std::string call = "<methodCall><methodName>Echo</methodName></methodCall>";
    const std::string length = "Content-Length: " + std::to_string(call.size()) + "\r\n";
    std::string lines;
    for (int i = 0; i < 101; ++i)
        lines += "a: b\r\n";
    for (const auto& [request, answer] : {
             std::pair<std::string, std::string>(post(secret + length, call), "HTTP/1.1 200 OK\r\n"),
             {post(length, call, "/?a=b&job=5ec4e7"), "HTTP/1.1 200 OK\r\n"},
             {post(length, call), "HTTP/1.1 403 Forbidden\r\n"},
             {post(length, call, "/?job="), "HTTP/1.1 403"},
             {post("X-Orvex-Job: 5ec4e8\r\n" + length, call), "HTTP/1.1 403"},
             {post("X-Orvex-Job: 5ec4e75ec4e7\r\n" + length, call), "HTTP/1.1 403"},
             {"GET / HTTP/1.1\r\n" + secret + "\r\n", "HTTP/1.1 405 Method Not Allowed\r\nAllow: POST\r\n"},
             {post(secret + length, call, "/other"), "HTTP/1.1 404"},
             {post(secret, ""), "HTTP/1.1 411"},
             {post(secret + "Transfer-Encoding: chunked\r\n", "0\r\n\r\n"), "HTTP/1.1 411"},
             {post(secret + "Transfer-Encoding: chunked\r\n" + length, call), "HTTP/1.1 400"},
             {post(secret + length + length, call), "HTTP/1.1 400"},
             {post(secret + "Content-Length: -1\r\n", call), "HTTP/1.1 400"},
             {post(secret + "Content-Length: 1001\r\n", std::string(500, 'x')), "HTTP/1.1 413"},
             {post(secret + "Content-Length: 2000000\r\n", std::string(2000000, 'x')), "HTTP/1.1 413"},
             {post(secret + "Content-Encoding: gzip\r\n" + length, call), "HTTP/1.1 415"},
             {post("a: " + std::string(9000, 'b') + "\r\n", ""), "HTTP/1.1 431"},
             {post(lines, ""), "HTTP/1.1 431"},
             {post(secret + length + "a: b\r\n c\r\n", call), "HTTP/1.1 400"},
             {post(secret + length + "a: b\rc\r\n", call), "HTTP/1.1 400"},
             {"\x16\x03\x01 not HTTP\r\n\r\n", "HTTP/1.1 400"},
             {post(secret + length + "Expect: 100-continue\r\n", ""), "HTTP/1.1 100 Continue\r\n\r\n"},
         }) {
        const std::string told = talk(server.port, request, false);
        EXPECT_EQ(told.substr(0, answer.size()), answer) << request.substr(0, 300);
    }
    EXPECT_EQ(talk(server.port, post(secret + length, call.substr(1)), true),
              "");                              // half a request, then the end
    std::vector<std::future<std::string>> slow; // more than there are connections, which end by their time
    for (int i = 0; i < 9; ++i)
        slow.push_back(
            std::async(std::launch::async, talk, server.port, "POST / HTTP/1.1\r\na: ", i % 2 == 0));
    for (std::future<std::string>& each : slow)
        EXPECT_EQ(each.get(), "");
    const std::string fault = talk(server.port, post(secret + "Content-Length: 4\r\n", "<!x>"), false);
    EXPECT_NE(fault.find("<i4>-32700</i4>"), fault.npos) << fault;
    XmlRpcValue result;
    EXPECT_TRUE(server.peer.call("127.0.0.1", server.port, "Echo", XmlRpcValue(7), result, 20.0));
    EXPECT_EQ(result.getArray().at(0).getInt(), 7);
}

TEST(XmlRpcServer, StrangersCannotHoldAllConnections) {
    std::vector<std::future<std::string>> strangers; // the last to go: they end with the server
    XmlRpcServer::Limits limits;
    limits.requestSeconds = 600.0;
    limits.connections = 2;
    AtWork server(limits);
    for (int i = 0; i < 3; ++i)
        strangers.push_back(std::async(std::launch::async, talk, server.port, "POST / HTTP/1.1\r\n", false));
    XmlRpcValue result;
    for (int i = 0; i < 3; ++i)
        EXPECT_TRUE(server.peer.call("127.0.0.1", server.port, "Echo", XmlRpcValue(7), result, 60.0))
            << server.peer.getLastFailure();
}

TEST(XmlRpcServer, ExitWorkAndShutdownEndTheWork) {
    XmlRpcServer server;
    EXPECT_FALSE(server.work(0.0));
    EXPECT_EQ(server.getfd(), XmlRpcSocket::InvalidSocket);
    EXPECT_FALSE(server.bindAndListen(0, 5, "203.0.113.1"));
    EXPECT_NE(server.getLastFailure().find("203.0.113.1:0 can't be listened on: "), std::string::npos);
    for (const char* address : {"localhost", "127.0.0.1"}) {
        ASSERT_TRUE(server.bindAndListen(0, 5, address)) << server.getLastFailure();
        EXPECT_GT(server.getPort(), 0);
        EXPECT_TRUE(server.work(0.0));
        server.exitWork();
        EXPECT_TRUE(server.work(-1.0)); // the call before counts
        EXPECT_TRUE(server.work(0.01));
        std::future<bool> work = std::async(std::launch::async, [&] { return server.work(-1.0); });
        server.exitWork();
        EXPECT_TRUE(work.get());
        work = std::async(std::launch::async, [&] { return server.work(-1.0); });
        server.shutdown();
        EXPECT_FALSE(work.get());
        EXPECT_EQ(server.getfd(), XmlRpcSocket::InvalidSocket);
        EXPECT_FALSE(server.work(-1.0));
    }
}

TEST(XmlRpcServer, AMethodMayEndTheWorkAndIsAnswered) {
    AtWork server;
    Method leave("Leave", [&](const XmlRpcValue&, XmlRpcValue& result) {
        result = XmlRpcValue(0);
        server.peer.exitWork();
    });
    server.stop();
    server.peer.getServer().addMethod(leave);
    std::future<bool> work = std::async(std::launch::async, [&] { return server.peer.work(-1.0); });
    XmlRpcValue result;
    EXPECT_TRUE(server.peer.call("127.0.0.1", server.port, "Leave", XmlRpcValue(), result, 20.0))
        << server.peer.getLastFailure();
    EXPECT_EQ(result.getInt(), 0);
    EXPECT_TRUE(work.get());
}

TEST(XmlRpcPeer, AThousandCallsLeaveNothingBehind) {
    AtWork server;
    XmlRpcValue result;
    const auto call = [&](const char* method) {
        return server.peer.call("127.0.0.1", server.port, method, XmlRpcValue("x"), result, 20.0);
    };
    EXPECT_TRUE(call("Echo"));
    server.stop();
    const std::size_t before = countDescriptors();
    server.start();
    for (int i = 0; i < 500; ++i)
        EXPECT_TRUE(call("Echo") && !call("Fail"));
    EXPECT_EQ(server.peer.getLastFailure(),
              "127.0.0.1:" + std::to_string(server.port) + " answered with the fault -32500: \\x01 \\xFF");
    server.stop();
    EXPECT_EQ(countDescriptors(), before);
    EXPECT_TRUE(server.fine);
}

TEST(XmlRpcPeer, PythonUnderstandsBothSides) {
    AtWork server;
    const std::string command = "exec python3 " ORVEX_INTEROP_SCRIPT " " + std::to_string(server.port);
    const std::unique_ptr<FILE, int (*)(FILE*)> python(popen(command.c_str(), "r"), &pclose);
    int port = 0;
    ASSERT_EQ(std::fscanf(python.get(), "%d", &port), 1);
    XmlRpcValue result;
    const XmlRpcValue::Array values{XmlRpcValue(-1),     XmlRpcValue("<\xE2\x82\xAC>"),
                                    XmlRpcValue(1e-300), XmlRpcValue(std::int64_t(7)),
                                    XmlRpcValue(),       XmlRpcValue(true)};
    EXPECT_TRUE(server.peer.call("localhost", port, "Echo", XmlRpcValue(values), result, 20.0))
        << server.peer.getLastFailure();
    EXPECT_EQ(result, XmlRpcValue(values)) << result.toXml();
}
