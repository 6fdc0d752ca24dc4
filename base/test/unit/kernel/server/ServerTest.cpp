#include "ServerTestSupport.h"

#include "kernel/Task.h"
#include "kernel/server/RpcMessage.h"
#include "platform/FileSystem.h"

#include <iostream>
#include <thread>
#include <unistd.h>

using namespace std::chrono_literals;
using Access = SessionHandshake::Access;

namespace {

Properties result(RpcClient& client, const std::string& method, const std::string& params = "{}") {
    return Properties(std::string_view(client.call(method, params, 5s).result));
}

/// A buffer that takes nothing while it is full.
struct Disk : std::stringbuf {
    std::streamsize xsputn(const char* text, std::streamsize size) override {
        return full ? 0 : std::stringbuf::xsputn(text, size);
    }
    int sync() override { return full ? -1 : 0; }
    bool full = true;
};

TEST_F(ServerFixture, AnswersCommandsOnTwoThreadsAndOnOne) {
    int ended = 0;
    onTwoThreadsAndOnOne([&] {
        server().setServiceEndedCallback([&] { ++ended; });
        RpcClient client;
        connect(client);
        const std::string args = R"({"a":1,"b":{"c":"\u00e4"},"d":[1.5,-2e300]})";
        Properties told = result(client, "Echo", args).getProperties("args");
        told.remove("command");
        EXPECT_EQ(told, Properties(args));
        EXPECT_EQ(client.call("Echo", R"({"command":"Fail"})").code, RpcFault::INVALID_PARAMS);
        EXPECT_FALSE(client.call("Echo", "{}").failed);
    });
    EXPECT_EQ(ended, 1); // start() tells its end, startInThread() has join()
}

TEST_F(ServerFixture, AnswersPipelinedCommandsInOrder) {
    serve([&] {
        constexpr unsigned long EACH = 10000;
        const std::size_t before = memory();
        const auto play = [&] {
            RpcClient client;
            connect(client);
            unsigned long last = 0;
            for (unsigned long i = 0; i < EACH; ++i)
                last = client.send("Echo", "{\"i\":" + std::to_string(i) + "}");
            for (unsigned long i = 0; i < EACH; ++i) {
                unsigned long id = 0;
                const Properties reply(std::string_view(client.receive(id, 20s).result));
                ASSERT_EQ(id, last - EACH + 1 + i);
                ASSERT_EQ(reply.getProperties("args").getUnsignedLong("i"), i);
            }
        };
        auto other = std::async(std::launch::async, play);
        play();
        other.get();
        EXPECT_EQ(executed, int(2 * EACH));
        EXPECT_LT(memory(), before + (std::size_t(48) << 20));
    });
}

TEST_F(ServerFixture, SendsTheConsoleBeforeTheAnswer) {
    Disk disk; // whose failures are none of the clients'
    std::streambuf* const before = std::cout.rdbuf();
    onTwoThreadsAndOnOne(
        [&] {
            RpcClient client;
            connect(client);
            disk.full = true;
            disk.str({});
            std::string text;
            client.setNotificationCallback([&](const std::string& method, std::string_view params) {
                if (method == "server.console")
                    text += Properties(params).getString("text");
            });
            EXPECT_FALSE(client.call("Print", R"({"lines":3000,"text":"\u00e4\u00f6\u00fc \"x\""})").failed);
            const std::string word = "\xc3\xa4\xc3\xb6\xc3\xbc \"x\"\n";
            EXPECT_TRUE(text.starts_with("line 0 " + word + "line 1 " + word)) << text.substr(0, 60);
            EXPECT_TRUE(text.ends_with("line 2999 " + word + "end"));
            disk.full = false;
            EXPECT_FALSE(client.call("Print", R"({"lines":1,"text":"x"})").failed);
            const std::size_t loss = disk.str().find(" bytes of output are lost here");
            ASSERT_NE(loss, std::string::npos) << disk.str();
            EXPECT_GE(std::stoul(disk.str().substr(disk.str().rfind('(', loss) + 1)), 10000U);
            EXPECT_NE(disk.str().find("line 0 x\nend"), std::string::npos) << disk.str();
        },
        &disk);
    EXPECT_EQ(std::cout.rdbuf(), before);
}

TEST_F(ServerFixture, ServesOneClientAtATimeAndRunsWhatItLeft) {
    server().setConnectionMode(Server::SINGLE_CONNECTION);
    serve([&] {
        {
            RpcClient first;
            connect(first, "the first");
            for (int i = 0; i < 3; ++i)
                first.send("Wait", "{}");
            RpcClient control;
            connect(control, "the boss", Access::CONTROL);
            ASSERT_TRUE(waitFor([&] { return result(control, "server.status").hasName("running"); }));
            EXPECT_EQ(refusal(target()),
                      "the first is connected, and this session serves one client at a time");
            const Properties status = result(control, "server.status");
            EXPECT_EQ(status.getProperties("running").getString("client"), "the first");
            std::vector<Properties> clients;
            status.get("clients", clients);
            ASSERT_EQ(clients.size(), 2u);
            EXPECT_EQ(clients[1].getString("access"), "control");
            EXPECT_EQ(control.call("Echo", "{}").code, RpcFault::INVALID_REQUEST);
        }
        EXPECT_TRUE(waitFor([&] { return refusal(target()).empty(); })); // the first has left
        release();
        RpcClient second;
        connect(second);
        EXPECT_FALSE(second.call("Echo", "{}", 10s).failed);
        EXPECT_EQ(executed, 4); // what was received is run, in order
    });
}

TEST_F(ServerFixture, StopsInOrder) {
    std::wstring path;
    onTwoThreadsAndOnOne([&] {
        path = SessionLocator::getSingleton().getRecordPath();
        EXPECT_TRUE(Platform::filesystem().exists(path));
        RpcClient client;
        connect(client);
        const unsigned long atWork = client.send("Wait", "{}");
        const unsigned long queued = client.send("Echo", "{}");
        std::string told;
        client.setNotificationCallback(
            [&](const std::string& method, std::string_view) { told += method + " "; });
        std::jthread later([&] {
            EXPECT_TRUE(
                waitFor([] { return Task::getCurrent() && Controller::getSingleton().hasQueuedCommands(); }));
            server().stop();
            RpcClient boss; // who steers is let in, who would run commands isn't
            connect(boss, "boss", Access::CONTROL);
            EXPECT_NE(refusal(target()).find("stops"), std::string::npos);
            const Properties left = result(boss, "server.stop");
            EXPECT_EQ(left.getInt("queued"), 1);
            EXPECT_NE(left.toString().find(R"("endedBy":["server.cancel","server.abort"])"),
                      std::string::npos);
            EXPECT_TRUE(result(boss, "server.cancel").getBool("cancelled"));
        });
        unsigned long id = 0;
        EXPECT_EQ(client.receive(id, 10s).message, "\"waiting\" was cancelled");
        EXPECT_EQ(id, atWork);
        const RpcClient::Reply refused = client.receive(id, 5s);
        EXPECT_EQ(id, queued);
        EXPECT_NE(refused.message.find("stops"), std::string::npos) << refused.message;
        EXPECT_TRUE(client.waitForEnd(5s));
        EXPECT_NE(told.find("server.stopping"), std::string::npos);
        EXPECT_EQ(executed, 1);
    });
    EXPECT_FALSE(Platform::filesystem().exists(path));
    EXPECT_FALSE(server().isRunning());
    EXPECT_EQ(server().getPort(), 0u);
}

TEST_F(ServerFixture, EndsByStopAlone) {
    server().setConnectionMode(Server::NO_CONNECTION);
    serve([&] { EXPECT_EQ(target().port, 0u); }, false);
    SetUp();
    EXPECT_EQ(server().getPort(), 0u);
    server().stop(); // before the start
    server().start(L"", 0);
    EXPECT_FALSE(server().isRunning());
}

/// @return the message with which the server refuses to start
std::string startError(unsigned port, int range) {
    Server::getSingleton().setPortRange(range);
    try {
        Server::getSingleton().start(L"", port);
        return {};
    } catch (const NonRecoverableError& error) {
        return error.what();
    }
}

TEST_F(ServerFixture, FindsAPort) {
    asio::io_context sockets;
    const asio::ip::tcp::acceptor other(sockets, {asio::ip::tcp::v4(), 0}); // of the system's choice
    const unsigned taken = other.local_endpoint().port();
    EXPECT_EQ(startError(taken, 1),
              "The server can't listen on port " + std::to_string(taken) + ": Address already in use");
    EXPECT_NE(startError(70000, -1).find("0 to 65535"), std::string::npos);
    for (int range : {-1, 50}) {
        SetUp();
        server().setPortRange(range);
        server().startInThread(L"", taken);
        EXPECT_NE(server().getPort(), taken);
        EXPECT_TRUE(range == -1 || (server().getPort() > taken && server().getPort() < taken + 50));
        EXPECT_NE(server().getSessionName().find("-" + std::to_string(getpid())), std::string::npos);
        server().join();
    }
}

TEST_F(ServerFixture, TakesTheClientAddressAlone) {
    for (const std::string address :
         {"192.0.2.1", "127.0.0.1", "localhost", "::1"}) { // the first is nobody's
        SetUp();
        server().setClientAddress(address);
        serve([&] {
            RpcClient::Target local = target();
            local.addresses = {"127.0.0.1"};
            EXPECT_EQ(refusal(local),
                      address == "192.0.2.1" ? "This server takes no connections from 127.0.0.1" : "")
                << address;
        });
    }
    SetUp();
    server().setClientAddress("no such host");
    EXPECT_NE(startError(0, -1).find("client address \"no such host\" can't be resolved"), std::string::npos);
}

} // namespace
