#include "xmlrpc/XmlRpcFanOut.h"

#include "unit/xmlrpc/AtWork.h"

#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

using XmlRpc::XmlRpcFanOut;
using XmlRpc::XmlRpcValue;

namespace {

/// A port of this host where nobody serves. It listens, or refuses when `listens` is false.
class DeafPort {
public:
    explicit DeafPort(bool listens) : _descriptor(socket(AF_INET, SOCK_STREAM, 0)) {
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t size = sizeof address;
        EXPECT_EQ(bind(_descriptor, reinterpret_cast<sockaddr*>(&address), size), 0);
        EXPECT_EQ(getsockname(_descriptor, reinterpret_cast<sockaddr*>(&address), &size), 0);
        EXPECT_TRUE(!listens || listen(_descriptor, 5) == 0);
        port = ntohs(address.sin_port);
    }
    ~DeafPort() { close(_descriptor); }

    /// Answers one client with `text`.
    std::thread answer(const std::string& text) {
        return std::thread([this, text] {
            const int client = accept(_descriptor, nullptr, nullptr);
            char request[4096];
            EXPECT_GT(recv(client, request, sizeof request, 0), 0);
            EXPECT_EQ(send(client, text.data(), text.size(), MSG_NOSIGNAL),
                      static_cast<ssize_t>(text.size()));
            close(client);
        });
    }

    int port = 0;

private:
    const int _descriptor;
};

} // namespace

TEST(XmlRpcFanOut, BadPeersFailAloneWithTheirReason) {
    AtWork good, other({}, "::1");
    DeafPort silent(true), refusing(false);
    XmlRpcFanOut fanOut;
    fanOut.setSecret(AtWork::SECRET);
    std::size_t arrived = 0;
    const std::string silence = "127.0.0.1:" + std::to_string(silent.port) + " gave no answer within 0.5 s";
    const std::vector<XmlRpcFanOut::Answer> answers =
        fanOut.call({{"127.0.0.1", silent.port, "Echo", XmlRpcValue()},
                     {"127.0.0.1", refusing.port, "Echo", XmlRpcValue()},
                     {"127.0.0.1", good.port, "Nothing", XmlRpcValue()},
                     {"no.host.invalid", 1, "Echo", XmlRpcValue()},
                     {"127.0.0.1", 65536, "Echo", XmlRpcValue()},
                     {"127.0.0.1", good.port, "Echo", XmlRpcValue(1)},
                     {"::1", other.port, "Echo", XmlRpcValue(2)}},
                    60.0, 0.5, [&](std::size_t, const XmlRpcFanOut::Answer&) { ++arrived; });
    EXPECT_EQ(arrived, answers.size());
    EXPECT_EQ(answers[0].failure, silence);
    for (const auto& [index, reason] :
         {std::pair<std::size_t, const char*>(1, "can't be reached: Connection refused"),
          {2, "answered with the fault -32601: there is no method \"Nothing\""},
          {3, "the host \"no.host.invalid\" has no address"},
          {4, "can't be reached: the port isn't one"}})
        EXPECT_NE(answers[index].failure.find(reason), std::string::npos) << answers[index].failure;
    for (const std::size_t index : {5U, 6U})
        EXPECT_TRUE(answers[index].answered) << answers[index].failure;
    const XmlRpcFanOut::Call call{"127.0.0.1", silent.port, "Echo", XmlRpcValue()};
    const auto late =
        fanOut.call(std::vector<XmlRpcFanOut::Call>(XmlRpcFanOut::MAX_CONNECTIONS + 1, call), 0.2, 60.0);
    EXPECT_NE(late.back().failure.find("wasn't called: the time for all calls was up"), std::string::npos);
    XmlRpcFanOut stranger;
    EXPECT_NE(stranger.call({{"127.0.0.1", good.port, "Echo", XmlRpcValue()}}, 20.0, 20.0)[0].failure.find(
                  "answered with the HTTP status 403 Forbidden"),
              std::string::npos);
}

TEST(XmlRpcFanOut, AnswersAreReadWhateverTheirForm) {
    const std::string document =
        "<methodResponse><params><param><value>a</value></param></params></methodResponse>";
    const std::string chunk = "51\r\n" + document + "\r\n0\r\n\r\n";
    ASSERT_EQ(document.size(), 0x51u);
    for (const auto& [text, failure] : {
             std::pair<std::string, std::string>("HTTP/1.0 200 OK\r\n\r\n" + document,
                                                 ""), // ends by the close
             {"HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n" + chunk, ""},
             {"HTTP/1.1 100 Continue\r\n\r\nHTTP/1.1 200 OK\r\nContent-Length: 81\r\n\r\n" + document, ""},
             {"HTTP/1.1 200 OK\r\nContent-Length: 82\r\n\r\n" + document, "can't be read: it ends too early"},
             {"HTTP/1.1 200 OK\r\nContent-Length: 99999999\r\n\r\n", "its body is larger than"},
             {"HTTP/1.1 200 OK\r\n\r\n<html/>", "a \"methodResponse\" was expected"},
             {"HTTP/1.1 500 Oops\r\nContent-Length: 0\r\n\r\n", "HTTP status 500 Internal Server Error"},
             {"SSH-2.0\r\n", "can't be read: "},
             {"", "can't be read: it ends too early"},
         }) {
        DeafPort port(true);
        std::thread thread = port.answer(text);
        const auto answers =
            XmlRpcFanOut().call({{"127.0.0.1", port.port, "Echo", XmlRpcValue()}}, 20.0, 20.0);
        thread.join();
        EXPECT_EQ(answers[0].answered, failure.empty()) << answers[0].failure;
        EXPECT_NE(answers[0].failure.find(failure), std::string::npos) << answers[0].failure;
    }
}

TEST(XmlRpcFanOut, AThousandCallsAreAnswered) {
    AtWork server;
    XmlRpcFanOut fanOut;
    fanOut.setSecret(AtWork::SECRET);
    const XmlRpcFanOut::Call call{"127.0.0.1", server.port, "Echo", XmlRpcValue(std::string(1000, 'x'))};
    for (const XmlRpcFanOut::Answer& answer :
         fanOut.call(std::vector<XmlRpcFanOut::Call>(1000, call), 60.0, 60.0))
        ASSERT_TRUE(answer.answered) << answer.failure;
}
