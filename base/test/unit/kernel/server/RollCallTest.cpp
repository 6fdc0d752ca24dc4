#include "ServerTestSupport.h"

#include "kernel/Raise.h"
#include "kernel/server/RpcMessage.h"

#include <thread>

using namespace std::chrono_literals;
using Access = SessionHandshake::Access;

namespace {

Properties standing(const std::string& verdict) {
    Properties result;
    result.set("text", "the text");
    result.set("verdict", verdict);
    return result;
}

/// A client for control beside one whose command is at work.
class RollCall : public ServerFixture {
protected:
    /// Starts `command` and returns when it is at work.
    void begin(RpcClient& client, const std::string& command) {
        const int before = executed;
        client.send(command, "{}");
        ASSERT_TRUE(waitFor([&] { return executed > before; }));
    }
    static std::string noticeOf(RpcClient& client, const std::function<void()>& act) {
        std::string text;
        client.setNotificationCallback([&](const std::string& method, std::string_view params) {
            if (method == "server.notice" || method == "server.abort")
                text += Properties(params).getOr("text", Properties(params).getOr("Message", "")) + "\n";
        });
        act();
        return text;
    }
};

TEST_F(RollCall, AnswersWhileACommandHangs) {
    std::atomic<int> calls = 0;
    std::atomic<int> atOnce = 0;
    std::atomic<bool> mayAnswer = false;
    server().setRollCall([&](const Properties& request) {
        EXPECT_EQ(++atOnce, 1);
        ++calls;
        EXPECT_TRUE(waitFor([&] { return mayAnswer.load(); }));
        --atOnce;
        if (request.hasName("rank"))
            raise(SystemError("rank " + std::to_string(request.getUnsignedInt("rank")) + " is lost"));
        return standing("all hang");
    });
    serve([&] {
        RpcClient client;
        connect(client);
        begin(client, "Hang");
        RpcClient boss;
        connect(boss, "boss", Access::CONTROL);
        boss.send("server.where", "{}");
        boss.send("server.where", "{}");                         // shares the answer
        boss.send("server.where", R"({"rank":0})");              // needs another one
        EXPECT_FALSE(boss.call("server.ping", "{}", 5s).failed); // the service goes on
        mayAnswer = true;
        unsigned long id = 0;
        for (int i = 0; i < 2; ++i)
            EXPECT_EQ(Properties(std::string_view(boss.receive(id, 5s).result)), standing("all hang"));
        EXPECT_EQ(boss.receive(id, 5s).message, "The roll call failed: rank 0 is lost");
        EXPECT_EQ(calls, 2);
        EXPECT_EQ(boss.call("server.where", R"({"rank":1})", 5s).code, RpcFault::INVALID_PARAMS);
        EXPECT_EQ(boss.call("server.where", R"({"rank":"x"})", 5s).code, RpcFault::INVALID_PARAMS);
    });
}

TEST_F(RollCall, TellsThatThereIsNoAnswer) {
    ServerLimits limits;
    limits.rollCallTime = 100ms;
    std::atomic<bool> mayAnswer = false;
    server().setLimits(limits);
    server().setRollCall([&](const Properties&) {
        EXPECT_TRUE(waitFor([&] { return mayAnswer.load(); }));
        return standing("late");
    });
    server().setSlowMethod("server.other", [](const Properties& request) { return request; });
    serve([&] {
        RpcClient boss;
        connect(boss, "boss", Access::CONTROL);
        for (int i = 0; i < 2; ++i) // the second one waits for the first call in vain
            EXPECT_EQ(boss.call("server.where", "{}", 5s).message,
                      "The roll call brought no answer within 0.1 s");
        EXPECT_EQ(boss.call("server.other", "{\"x\":1}", 5s).result, "{\"x\":1}");
        mayAnswer = true;
        EXPECT_TRUE(waitFor([&] { return !boss.call("server.where", "{}", 5s).failed; }));
    });
    SetUp();
    serve([&] {
        RpcClient boss;
        connect(boss, "boss", Access::CONTROL);
        EXPECT_EQ(boss.call("server.where", "{}", 5s).message,
                  "This server can't tell where its ranks stand: it has no error channel, as with "
                  "-nothreads");
    });
}

TEST_F(RollCall, ForcesTheEndOfACommandThatDoesNotLook) {
    const struct {
        std::string command;
        bool cancelled;
        bool forced;
    } rows[] = {{"Wait", true, false}, {"Hang", false, true}, {"Deaf", true, true}, {"", false, false}};
    for (const auto& row : rows) {
        SetUp();
        ServerLimits limits;
        limits.forceTime = row.command == "Wait" ? 10000ms : 100ms;
        std::atomic<int> aborted = 0;
        server().setLimits(limits);
        server().setAbortCallback([&] { ++aborted; });
        server().setRollCall([](const Properties&) { return standing("rank 2 computes."); });
        serve([&] {
            RpcClient client;
            connect(client);
            if (!row.command.empty())
                begin(client, row.command);
            RpcClient boss;
            connect(boss, "boss", Access::CONTROL);
            const std::string told = noticeOf(boss, [&] {
                const Properties result(
                    std::string_view(boss.call("server.cancel", R"({"force":true})", 15s).result));
                EXPECT_EQ(result.getBool("cancelled"), row.cancelled) << row.command;
                EXPECT_EQ(result.getBool("forced"), row.forced) << row.command;
                EXPECT_EQ(result.getOr("text", ""), row.forced ? "the text" : "") << row.command;
                EXPECT_TRUE(waitFor([&] { return aborted == int(row.forced); }));
                EXPECT_FALSE(boss.call("server.ping", "{}", 5s).failed);
            });
            EXPECT_EQ(told,
                      row.forced ? "boss forced the end of \"" + row.command + "\": rank 2 computes.\n" : "");
        });
        EXPECT_EQ(aborted, int(row.forced)) << row.command;
    }
}

TEST_F(RollCall, TellsAllClientsATextOnce) {
    serve([&] {
        RpcClient client;
        RpcClient boss;
        connect(client);
        connect(boss, "boss", Access::CONTROL);
        for (RpcClient* each : {&client, &boss})
            EXPECT_EQ(noticeOf(*each,
                               [&] {
                                   if (each == &client)
                                       server().tellClients("two\nlines");
                                   EXPECT_FALSE(each->call("server.ping", "{}", 5s).failed);
                               }),
                      "two\nlines\n");
    });
}

TEST_F(RollCall, CancelsACommandAtItsDeadline) {
    onTwoThreadsAndOnOne([&] {
        RpcClient client;
        connect(client);
        for (const char* seconds : {"0", "-1", "1e9", "\"x\""})
            EXPECT_EQ(client.call("server.deadline", "{\"seconds\":" + std::string(seconds) + "}", 5s).code,
                      RpcFault::INVALID_PARAMS);
        EXPECT_FALSE(client.call("server.deadline", R"({"seconds":0.1})", 5s).failed);
        EXPECT_EQ(client.call("Wait", "{}", 10s).message,
                  "\"waiting\" was cancelled: the deadline of 0.1 s has passed");
        EXPECT_FALSE(client.call("server.deadline", R"({"seconds":0.1})", 5s).failed);
        EXPECT_EQ(client.call("Fail", R"({"text":"bad luck","rank":0})", 10s).message, "bad luck");
        begin(client, "Wait"); // has none
        EXPECT_FALSE(client.call("server.deadline", R"({"seconds":7200})", 5s).failed);
        client.send("Wait", "{}");
        RpcClient boss;
        connect(boss, "boss", Access::CONTROL);
        EXPECT_EQ(boss.call("server.deadline", R"({"seconds":1})", 5s).code, RpcFault::INVALID_PARAMS);
        const auto running = [&] {
            const Properties status(std::string_view(boss.call("server.status", "{}", 5s).result));
            return status.getOr("running", Properties());
        };
        EXPECT_FALSE(running().hasName("deadline"));
        boss.call("server.cancel", "{}", 5s);
        EXPECT_TRUE(waitFor([&] { return running().hasName("deadline"); }));
        EXPECT_EQ(running().getReal("deadline"), 7200.0);
        EXPECT_GT(running().getReal("deadlineLeft"), 7000.0);
        boss.call("server.cancel", "{}", 5s);
        unsigned long id = 0;
        for (int i = 0; i < 2; ++i)
            EXPECT_EQ(client.receive(id, 10s).message, "\"waiting\" was cancelled");
        {
            RpcClient leaving;
            connect(leaving);
            EXPECT_FALSE(leaving.call("server.deadline", R"({"seconds":0.2})", 5s).failed);
            begin(leaving, "Wait");
        }
        EXPECT_FALSE(client.call("Echo", "{}", 5s).failed); // Wait would last 10 s
    });
}

TEST_F(RollCall, TellsWhyACommandOutlivesItsDeadline) {
    const struct {
        std::string command;
        std::string part;
    } rows[] = {{"Hang", "\"Hang\" runs no task that can be cancelled"},
                {"Deaf", "\"Deaf\" hasn't looked for the cancel for 0.2 s"}};
    for (const auto& row : rows) {
        SetUp();
        ServerLimits limits;
        limits.deadlineTime = 200ms;
        server().setLimits(limits);
        serve([&] {
            RpcClient client;
            connect(client);
            EXPECT_FALSE(client.call("server.deadline", R"({"seconds":0.1})", 5s).failed);
            begin(client, row.command);
            std::string told;
            client.setNotificationCallback([&](const std::string& method, std::string_view params) {
                if (method != "server.notice")
                    return;
                told += Properties(params).getString("text");
                release();
            });
            unsigned long id = 0;
            EXPECT_FALSE(client.receive(id, 10s).failed); // it wasn't cancelled
            EXPECT_TRUE(told.starts_with("The deadline of 0.1 s has passed, but " + row.part)) << told;
            EXPECT_NE(told.find("\"orvexctl cancel --force\" takes the job down."), std::string::npos);
        });
    }
}

} // namespace
