#include "ServerTestSupport.h"

#include "kernel/server/RpcMessage.h"
#include "unit/machine/LogLines.h"

#include <algorithm>
#include <chrono>
#include <list>
#include <regex>
#include <thread>

using namespace std::chrono_literals;

namespace {

constexpr std::size_t MIB = std::size_t(1) << 20;

class ServerLimitsTest : public ServerFixture {
protected:
    /// Lets `attack` loose on the server: a proper client is served meanwhile, and memory stays bounded.
    void attacked(const ServerLimits& limits, std::size_t growth,
                  const std::function<void(unsigned port)>& attack) {
        server().setLimits(limits);
        serve([&] {
            RpcClient proper;
            connect(proper, "proper");
            EXPECT_FALSE(proper.call("Echo", "{}", 5s).failed);
            const std::size_t before = memory();
            auto attacking = std::async(std::launch::async, attack, server().getPort());
            while (attacking.wait_for(5ms) != std::future_status::ready) {
                EXPECT_LT(memory(), before + growth);
                EXPECT_FALSE(proper.call("Echo", "{}", 5s).failed);
            }
            EXPECT_NO_THROW(attacking.get());
            EXPECT_EQ(refusal(target()), "");
        });
    }
    bool isLogged(const char* part) const { return log.text().find(part) != std::string::npos; }
    const LogLines log;
};

/// Greeted and let in, with bytes of one's own from there.
RawConnection authenticated(const RpcClient::Target& target) {
    RawConnection raw(target.port);
    RpcMessage hello;
    const std::string line = raw.read();
    EXPECT_FALSE(hello.parse(line));
    const auto greeting = SessionHandshake::Greeting::fromMessage(hello);
    raw.send(RpcMessage::request("0", SessionHandshake::AUTHENTICATE,
                                 SessionHandshake::answer(*greeting, target.key, SessionKey::makeNonce(),
                                                          SessionHandshake::Access::COMMANDS, "raw")));
    EXPECT_NE(raw.read("result"), "");
    return raw;
}

TEST_F(ServerLimitsTest, StrangersAreToldWhatIsWrongAndCutOff) {
    attacked({}, 16 * MIB, [&](unsigned port) {
        for (const auto& [text, fault] :
             {std::pair<std::string, const char*>("GET / HTTP/1.1\r\n\r\n", "-32700.*isn't JSON"),
              {RpcMessage::request("1", "server.stop", "{}"), "-32002.*must be proved first"},
              {std::string(4097, 'x') + "\n", "-32600.*too long"}}) {
            RawConnection raw(port);
            raw.read();
            raw.send(text);
            const std::string line = raw.read();
            EXPECT_TRUE(std::regex_search(line, std::regex(fault))) << line;
            EXPECT_TRUE(raw.ends());
        }
    });
}

TEST_F(ServerLimitsTest, SilentConnectionsMakeRoom) {
    ServerLimits limits;
    limits.handshakeTime = 400ms;
    attacked(limits, 32 * MIB, [&](unsigned port) {
        std::list<RawConnection> silent;
        for (int i = 0; i < 500; ++i) {
            silent.emplace_back(port);
            EXPECT_EQ(i % 100 ? "" : refusal(target()), "");
        }
        for (RawConnection& connection : silent)
            EXPECT_TRUE(connection.ends());
    });
    EXPECT_TRUE(isLogged("this was the oldest") && isLogged("wasn't proved within 400 ms"));
    EXPECT_LT(std::ranges::count(log.text(), '\n'), 60); // a stranger can't fill the disk
}

TEST_F(ServerLimitsTest, UncalledForAndTooLargeAnswersAreFaults) {
    ServerLimits limits;
    limits.responseBytes = MIB;
    server().setLimits(limits);
    serve([&] {
        RawConnection raw = authenticated(target());
        raw.send("\n" + RpcMessage::answer("1", "{}") + RpcMessage::request("9", "Echo", "{}"));
        EXPECT_NE(raw.read().find("\"error\""), std::string::npos);
        EXPECT_NE(raw.read().find("\"id\":9,\"result\""), std::string::npos);
        raw.send(RpcMessage::request("10", "Big", "{\"bytes\":1048576}") +
                 RpcMessage::request("11", "Echo", "{}"));
        EXPECT_NE(raw.read().find("limit of 1048576"), std::string::npos);
        EXPECT_NE(raw.read().find("\"id\":11,\"result\""), std::string::npos);
    });
}

TEST_F(ServerLimitsTest, RequestsOfAllClientsAreBoundedTogether) {
    ServerLimits limits;
    limits.requestBytes = 4 * MIB;
    limits.stallTime = 3s;
    server().setLimits(limits);
    serve([&] {
        constexpr int REQUESTS = 16;
        const auto ask = [](int id, std::size_t size) {
            return RpcMessage::request(std::to_string(id), "Big",
                                       R"({"bytes":1,"text":")" + std::string(size, 'x') + "\"}");
        };
        std::string small;
        for (int i = 0; i < REQUESTS; ++i)
            small += ask(i, MIB / 2);
        std::list<RawConnection> clients;
        for (int i = 0; i < 8; ++i)
            clients.push_back(authenticated(target()));
        RpcClient boss;
        connect(boss, "boss", SessionHandshake::Access::CONTROL);
        RpcClient first;
        connect(first);
        first.send("Wait", "{}");
        EXPECT_TRUE(waitFor([] { return executed == 1; }));
        // Behind a command, then of parts of requests alone: none is lost.
        for (const std::string& text : {small, ask(REQUESTS, 3 * MIB)}) {
            const std::size_t before = memory();
            std::list<std::jthread> senders;
            for (RawConnection& client : clients)
                senders.emplace_back([&] { EXPECT_TRUE(client.send(text, 60)); });
            for (int i = 0; !released && i < 30; ++i, std::this_thread::sleep_for(10ms)) {
                EXPECT_FALSE(boss.call("server.ping", "{}", 5s).failed);
                EXPECT_LT(memory(), before + 24 * MIB);
            }
            release();
        }
        for (RawConnection& client : clients)
            for (int i = 0; i <= REQUESTS; ++i)
                EXPECT_NE(client.read("\"id\":" + std::to_string(i) + ",\"result", 60), "");
        clients.front().send(ask(0, 5 * MIB).substr(0, 5 * MIB));
        EXPECT_TRUE(waitFor([&] { return isLogged("a request that others wait for stands still"); }));
    });
}

TEST_F(ServerLimitsTest, AHalfClosedClientGetsItsAnswers) {
    serve([&] {
        RawConnection raw = authenticated(target());
        raw.send(RpcMessage::request("1", "Wait", "{}") + RpcMessage::request("2", "Echo", "{}"));
        EXPECT_TRUE(waitFor([] { return executed == 1; }));
        raw.endSending();
        EXPECT_NE(raw.read("requestsEnded").find("{\"unanswered\":2}"), std::string::npos);
        release();
        for (const char* answer : {"\"id\":1,\"result\"", "\"id\":2,\"result\""})
            EXPECT_NE(raw.read(answer), "");
        EXPECT_TRUE(raw.ends());
    });
}

TEST_F(ServerLimitsTest, AClientThatReadsNothingIsCutOff) {
    ServerLimits limits;
    limits.stallTime = 700ms;
    attacked(limits, 48 * MIB, [&](unsigned) {
        RawConnection raw = authenticated(target());
        std::string requests;
        for (int i = 0; i < 10000; ++i)
            requests += RpcMessage::request(std::to_string(i), "Big", "{\"bytes\":20000}");
        raw.send(requests);
        EXPECT_TRUE(waitFor([&] { return isLogged("has taken nothing of its answers"); }));
    });
    EXPECT_LT(executed, 9000); // 200 MB of answers were never made
}

TEST_F(ServerLimitsTest, ASlowReaderLosesLinesAndIsTold) {
    ServerLimits limits;
    limits.consoleBacklog = 64 * 1024;
    limits.stallTime = 60s;
    server().setLimits(limits);
    serve([&] {
        RawConnection slow = authenticated(target());
        RpcClient quick;
        connect(quick);
        for (int i = 0; i < 20; ++i)
            EXPECT_FALSE(
                quick.call("Print", R"({"lines":10000,"text":"a line that nobody takes away"})", 10s).failed);
        // Now it reads: what was kept, then how much was lost.
        slow.send(RpcMessage::request("5", "Echo", "{}"));
        std::size_t lost = 0;
        for (RpcMessage message; message.id != "5";) {
            const std::string line = slow.read({}, 60); // TCP takes its time to notice that we read again
            ASSERT_FALSE(message.parse(line)) << line;
            if (message.method == "server.consoleLost")
                lost += Properties(message.params).getUnsignedLong("lines");
        }
        EXPECT_GT(lost, 1000u);
    });
}

} // namespace
