#include "ServerTestSupport.h"

#include "kernel/BillBook.h"
#include "kernel/Controller.h"
#include "kernel/Observer.h"
#include "kernel/Subject.h"
#include "platform/Process.h"
#include "platform/StringHelper.h"

namespace {

/// orvexctl as people run it.
class OrvexctlTest : public ServerFixture {
protected:
    struct Result {
        int code;
        std::string output; ///< standard output and standard error
    };
    Result run(std::vector<std::string> words, bool throughShell = false) {
        // After the end the path is gone from the locator, and without one another session might be found.
        const std::wstring path = SessionLocator::getSingleton().getRecordPath();
        if (!path.empty())
            _keyFile = StringHelper::toString(path);
        words.insert(words.begin(), {ORVEXCTL, "--key-file", _keyFile});
        if (throughShell)
            words = {"sh", "-c", StringHelper::join(words, " ")};
        std::vector<std::wstring> command;
        for (const std::string& word : words)
            command.push_back(StringHelper::toWString(word));
        const auto result = Platform::process().runCaptured(command, 30.0);
        return {result.exitStatus.value_or(-1), result.output};
    }
    static bool has(const Result& result, const std::string& part) {
        return result.output.find(part) != std::string::npos;
    }
    static void check(const Result& result, int code, const std::string& part) {
        EXPECT_EQ(result.code, code) << result.output;
        EXPECT_TRUE(has(result, part)) << part << "\n" << result.output;
    }

    std::string _keyFile;
};

/// Writes the same bill for each command.
class BillObserver : public Observer {
public:
    BillObserver() {
        _bill.set("command", "Echo");
        _bill.set("began", 0.0);
        _bill.set("ranks", 1);
        _bill.set("wall", 1.5);
        BillBook::getSingleton().add(_bill);
    }
    void update(Properties&) override { Controller::getSingleton().getToldOutcome().bill = _bill; }

private:
    Properties _bill;
};

TEST_F(OrvexctlTest, RunsCommandsAndTellsHowTheyEnd) {
    BillObserver observer;
    Subject& observable = Controller::getSingleton().getMasterGatherResponseObservable();
    observable.attach(observer);
    server().setRollCall([](const Properties& request) {
        Properties standing;
        standing.set("text", request.hasName("rank") ? "\nRank 0 alone.\n" : "\nAll is well.");
        standing.set("verdict", "well");
        return standing;
    });
    serve([&] {
        const struct {
            std::vector<std::string> words;
            int code;
            std::string part;
        } rows[] = {
            {{"--json", "Echo", "text=1", "n=1"}, 0, R"("args":{"text":"1","n":1,)"},
            {{"Fail", "text=bad luck", "rank=3"}, 1, "Error: bad luck (rank 3)\n"},
            {{"--json", "Fail", "text=bad luck", "rank=3"},
             1,
             R"({"error":{"code":-32000,"message":"bad luck","data":{)"},
            {{"Ecko"}, 1, "did you mean \"Echo\""},
            {{"Echo", "novalue"}, 2, "\"novalue\" isn't an argument"},
            {{"--session", "", "Echo"}, 2, "--session"},
            {{"--file", "/nowhere/script"}, 2, "/nowhere/script can't be read"},
            {{"--file", "/tmp"}, 2, "The script /tmp is a folder"},
            {{"Undone"}, 1, "Error: no room\n"},
            {{"--json", "Undone", "text=x"}, 0, "\"Success\":true"},
            {{"Diverged"}, 0, "false"}, // a result of its own
            {{"Echo", "Success:=false"}, 0, "false"},
            {{"postmortem", "no-such-job"}, 1, "There is no dead job \"no-such-job\" here"},
            {{"postmortem", "1", "2"}, 2, "postmortem takes one job"},
            {{"postmortem", "--remove"}, 2, "takes a job, or all"},
            {{"status", "--remove"}, 2, "it belongs to the command \"postmortem\""},
            {{"help"}, 0, "Usage: orvexctl"},
            {{"help", "stop"}, 0, "end the server in order"},
            {{"list-commands"}, 0, "Echo      For tests: Echo\n"},
            {{"list-commands", "Echo"}, 0, "text  text  anything       false"},
            {{"list-commands", "Ecko"}, 1, "did you mean \"Echo\""},
            {{"status"}, 0, "queued"},
            {{"bills"}, 0, "Echo         1.50 s"},
            {{"bills", "0"}, 2, "bills takes nothing, or the number of bills"},
            {{"--bill", "--json", "Echo"}, 0, "\n{\"bill\":{\"command\":\"Echo\",\"began\":0.0,\"ranks\":1,"},
            {{"--bill", "Fail", "text=bad luck"}, 1, "Bill of Echo: 1.50 s\n"},
            {{"cancel"}, 0, "cancelled  false"},
            {{"cancel", "--force"}, 1, "no way to abort"},
            {{"cancel", "now"}, 2, "cancel takes nothing, or --force"},
            {{"--force", "status"}, 2, "it belongs to the command \"cancel\""},
            {{"where"}, 0, "\nAll is well.\n"},
            {{"--json", "where"}, 0, "{\"verdict\":\"well\"}\n"},
            {{"where", "--rank", "0"}, 0, "\nRank 0 alone.\n"},
            {{"where", "--rank", "1"}, 1, "There is no rank 1: the process is serial"},
            {{"where", "--rank", "x"}, 2, "--rank and the number of a rank"},
            {{"--deadline", "1.5h", "Echo"}, 0, "args"},
            {{"--deadline", "30x", "Echo"}, 2, "\"30x\" is no time like 90s, 30m or 1.5h"},
            {{"--deadline", "0.1s", "Wait"}, 1, "was cancelled: the deadline of 0.1 s has passed"},
            {{"abort"}, 1, "no way to abort"},
            {{"--timeout", "0.3", "Wait"}, 6, "in time; Wait goes on in the server"},
            {{"--host", "127.0.0.1", "--port", "1", "Echo"},
             3,
             "No server can be reached: 127.0.0.1:1: Connection refused"},
            {{"Print", "lines=2", "text=x"}, 0, "line 0 x\nline 1 x\nend"},
        };
        for (const auto& row : rows) {
            check(run(row.words), row.code, row.part);
            if (row.code == 6)
                release();
        }
        EXPECT_FALSE(has(run({"-q", "Print", "lines=2", "text=x"}), "line"));
        check(run({"Echo", ">/dev/full"}, true), 7, "can't be written: No space left on device");
        EXPECT_FALSE(has(run({"Echo"}), "Bill"));
    });
    observable.detach(observer);
}

TEST_F(OrvexctlTest, RunsScripts) {
    TemporaryDirectory directory;
    const std::string path = StringHelper::toString(directory / L"script");
    std::ofstream(path)
        << "# a script\nEcho text=one\n\nFail text=two rank=1\nEcho \"text=three\nEcho text=four\n";
    serve([&] {
        Result result = run({"--json", "-f", path});
        check(result, 1, "two");
        EXPECT_TRUE(has(result, "one") && !has(result, "four")) << result.output;
        result = run({"--json", "--keep-going", "-f", path});
        check(result, 1, path + ":5: The line ends within a quote");
        check(result, 1, "four");
    });
}

TEST_F(OrvexctlTest, IsToldWhyItIsRefused) {
    server().setConnectionMode(Server::SINGLE_CONNECTION);
    serve([&] {
        {
            RpcClient first;
            connect(first, "the first");
            check(run({"Echo"}), 4, "the first is connected");
            check(run({"status"}), 0, "");
        }
        const SessionRecord record =
            SessionLocator::readRecord(SessionLocator::getSingleton().getRecordPath());
        const auto checkChanged = [&](const SessionRecord& changed, int code, const char* part) {
            ASSERT_TRUE(Platform::filesystem().writePrivateFile(record.path, changed.toText()));
            check(run({"Echo"}), code, part);
        };
        SessionRecord other = record;
        other.key.replace(0, 4, "0000");
        checkChanged(other, 4, "The proof of the session key is wrong");
        other.host = other.boot = "elsewhere";
        checkChanged(other, 3, "\"ssh elsewhere orvexctl");
        other = record;
        other.port = 1;
        other.pidNamespace = 0;
        checkChanged(other, 3, "Connection refused; whether this server still runs can't be seen from here");
    });
}

TEST_F(OrvexctlTest, SeesTheEndOfTheServer) {
    serve([&] {
        auto waiting = std::async(std::launch::async, [&] { return run({"Wait"}); });
        ASSERT_TRUE(waitFor([&] { return executed == 1; }));
        // The process of this server goes on after the test, so its end isn't seen: the time runs out.
        auto stopping = std::async(std::launch::async, [&] { return run({"--timeout", "1", "stop"}); });
        ASSERT_TRUE(waitFor([&] { return refusal(target()).find("stops") != std::string::npos; }));
        release();
        EXPECT_EQ(waiting.get().code, 0);
        const Result stopped = stopping.get();
        check(stopped, 6, "stops when Wait of ");
        check(stopped, 6, "is at 25 %");
        check(stopped, 6, "\"cancel\" asks it to end");
    });
    check(run({"Echo"}), 3, "");
}

} // namespace
