#include "platform/Process.h"

#include "platform/Pipe.h"
#include "platform/StringHelper.h"
#include "platform/Time.h"
#include "support/TemporaryDirectory.h"

#include <gtest/gtest.h>

#include <csignal>
#include <filesystem>
#include <functional>
#include <pthread.h>
#include <system_error>
#include <unistd.h>

namespace {

using Command = std::vector<std::wstring>;

Command shell(const std::wstring& script) {
    return {L"sh", L"-c", script};
}

bool eventually(const std::function<bool()>& condition) {
    const double end = Platform::time().getTime() + 10.0;
    while (!condition() && Platform::time().getTime() < end)
        Platform::time().sleep(0.01);
    return condition();
}

class ProcessTest : public testing::Test {
protected:
    /// A program of its own name that sleeps.
    std::wstring makeSleeper(const std::wstring& name) const {
        std::filesystem::copy_file("/bin/sleep", StringHelper::toString(directory / name));
        return directory / name;
    }

    TemporaryDirectory directory;
    Platform::Process& processes = Platform::process();
};

} // namespace

TEST_F(ProcessTest, TellsHowAProcessEnded) {
    const struct {
        Command command;
        double timeLimit;
        int status;
    } rows[] = {{shell(L"exit 0"), -1.0, 0},
                {shell(L"exit 3"), 10.0, 3},
                {shell(L"kill -9 $$"), -1.0, 128 + SIGKILL},
                {{L"sleep", L"30"}, 0.1, 124},
                {{directory / L"missing"}, -1.0, 127},
                {{}, -1.0, 127},
                {{std::wstring(L"sh\0x", 4)}, -1.0, 127}};
    for (const auto& row : rows)
        EXPECT_EQ(processes.run(row.command, row.timeLimit), row.status);
}

TEST_F(ProcessTest, CapturesAndBoundsTheOutput) {
    auto result = processes.runCaptured(shell(L"echo out; echo err >&2; exit 4"), 20.0);
    EXPECT_EQ(result.exitStatus, 4);
    EXPECT_EQ(result.output, "out\nerr\n");
    EXPECT_FALSE(result.outputCut);
    result = processes.runCaptured(shell(L"head -c 300000 /dev/zero"), 20.0, 1000);
    EXPECT_EQ(result.exitStatus, 0);
    EXPECT_EQ(result.output.size(), 1000u);
    EXPECT_TRUE(result.outputCut);
    EXPECT_THROW(processes.runCaptured({L"orvex-no-such-program"}, 1.0), std::system_error);
    // A grandchild that keeps the output open doesn't hold the caller.
    const double start = Platform::time().getTime();
    result = processes.runCaptured(shell(L"sleep 20 & echo $!"), 60.0);
    EXPECT_LT(Platform::time().getTime() - start, 15.0);
    EXPECT_TRUE(processes.kill(std::stoi(result.output)));
}

TEST_F(ProcessTest, TheEndOfTimeTakesTheWholeGroup) {
    const std::wstring sleeper = makeSleeper(L"orvex-test-sleeper-of-long-name");
    const auto result = processes.runCaptured(shell(sleeper + L" 60 & echo begun; " + sleeper + L" 60"), 0.5);
    EXPECT_FALSE(result.exitStatus.has_value());
    EXPECT_EQ(result.output, "begun\n");
    EXPECT_TRUE(eventually([this] { return processes.getPids("orvex-test-sleeper-of-long-name").empty(); }));
}

TEST_F(ProcessTest, ListsByExecutableName) {
    const std::wstring sleeper = makeSleeper(L"orvex-test-listed-by-name");
    const std::string name = "orvex-test-listed-by-name";
    const auto one = processes.start({sleeper, L"30"}, {});
    const auto two = processes.start({sleeper, L"30"}, {});
    std::vector<int> expected{one->getPid(), two->getPid()};
    std::sort(expected.begin(), expected.end());
    // An executable that is replaced while it runs keeps its name.
    Platform::filesystem().deleteFile(sleeper);
    EXPECT_TRUE(eventually([&] { return processes.getPids(name) == expected; }));
    EXPECT_TRUE(processes.getPids(name.substr(0, 15)).empty());
    EXPECT_TRUE(processes.getPids("").empty());
    EXPECT_TRUE(processes.isAlive(one->getPid()));
    EXPECT_TRUE(processes.terminate(one->getPid()));
    EXPECT_EQ(one->wait(10.0), 128 + SIGTERM);
    EXPECT_TRUE(processes.kill(two->getPid()));
    // Ended but not collected: a zombie doesn't count.
    EXPECT_TRUE(
        eventually([&] { return !processes.isAlive(two->getPid()) && processes.getPids(name).empty(); }));
    for (const int nobody : {0, -1, 1 << 30}) {
        EXPECT_FALSE(processes.isAlive(nobody));
        EXPECT_FALSE(processes.terminate(nobody));
        EXPECT_EQ(processes.getStartStamp(nobody), 0u);
    }
}

TEST_F(ProcessTest, WaitsForTheMarker) {
    const std::wstring done = directory / L"done";
    std::string captured = "old";
    // Behind the marker the child prints more than a pipe takes; it must come to its end all the same.
    auto handle = processes.startAndExpect(
        shell(L"echo first; echo ProxyServer::start -host n1:4711; head -c 300000 /dev/zero && echo > " +
              done),
        "ProxyServer::start -host", captured, false, 10.0);
    ASSERT_NE(handle, nullptr);
    EXPECT_EQ(captured, "first\nProxyServer::start -host n1:4711\n");
    EXPECT_EQ(handle->wait(10.0), 0);
    EXPECT_TRUE(Platform::filesystem().exists(done));
    for (const auto& [script, expected] :
         {std::pair(L"echo nothing", "nothing\n"),
          {L"printf 'a MAR'; sleep 0.1; printf 'KER in two\\nmore\\n'", "a MARKER in two\n"},
          {L"printf MARKER; exec sleep 30", "MARKER"}}) { // without a line end: the time is up
        handle = processes.startAndExpect(shell(script), "MARKER", captured, false, 0.5);
        ASSERT_NE(handle, nullptr);
        EXPECT_EQ(captured, expected);
        handle->terminate();
    }
    EXPECT_EQ(processes.startAndExpect({L"orvex-no-such-program"}, "x", captured, false), nullptr);
    EXPECT_NE(captured.find("orvex-no-such-program"), std::string::npos) << captured;
}

TEST_F(ProcessTest, AChildOutlivesItsHandle) {
    const std::wstring done = directory / L"done";
    int pid = 0;
    {
        const auto handle =
            processes.start(shell(L"sleep 0.1; head -c 300000 /dev/zero && echo > " + done), {});
        pid = handle->getPid();
        EXPECT_FALSE(handle->wait(0.0).has_value());
    }
    EXPECT_TRUE(eventually([&] { return Platform::filesystem().exists(done); }));
    EXPECT_TRUE(eventually([&] { return processes.getStartStamp(pid) == 0; })); // no zombie is left
}

TEST_F(ProcessTest, FeedsTheInputAndSetsFolderAndEnvironment) {
    Platform::Process::StartOptions options;
    options.pipeInput = true;
    options.joinErrorToOutput = true;
    options.directory = directory.getPath();
    options.environment = {{"ORVEX_TEST_WORD", "a b"}};
    const auto handle = processes.start(shell(L"echo $(cat; pwd; echo $ORVEX_TEST_WORD)"), options);
    ASSERT_TRUE(handle->getInput()->write("fed\n", 4, 10.0));
    handle->getInput()->closeWriteEnd();
    std::string output(256, 0);
    const int size = handle->getOutput()->read(output.data(), output.size(), 10.0);
    EXPECT_EQ(output.substr(0, static_cast<std::size_t>(size)),
              "fed " + StringHelper::toString(directory.getPath()) + " a b\n");
    EXPECT_EQ(handle->wait(10.0), 0);
}

TEST_F(ProcessTest, AChildInheritsNothingOfOurs) {
    const int leaked = ::dup(STDOUT_FILENO); // open in any program that is started without care
    sigset_t blocked;
    sigset_t before;
    ::sigemptyset(&blocked);
    ::sigaddset(&blocked, SIGTERM);
    ::pthread_sigmask(SIG_BLOCK, &blocked, &before);
    const auto oldPipe = ::signal(SIGPIPE, SIG_IGN);
    const auto result = processes.runCaptured(
        // The shell's own masks change while it starts something: what takes its place has them at rest.
        shell(L"ls /proc/$$/fd; readlink /proc/$$/fd/0; exec sed -n 's/^Sig[BI][lg][kn]:.//p' "
              L"/proc/self/status"),
        20.0);
    ::signal(SIGPIPE, oldPipe);
    ::pthread_sigmask(SIG_SETMASK, &before, nullptr);
    ::close(leaked);
    const auto lines = StringHelper::tokenize(result.output, "\n");
    ASSERT_EQ(lines.size(), 6u) << result.output;
    EXPECT_EQ(StringHelper::join(lines, " ").substr(0, 15), "0 1 2 /dev/null");
    // The C library keeps signal 32 and those above for itself.
    for (const std::string& mask : {lines[4], lines[5]})
        EXPECT_EQ(std::stoull(mask, nullptr, 16) & 0x7FFFFFFF, 0u) << result.output;
}

TEST_F(ProcessTest, TerminateEndsTheStubborn) {
    const auto handle = processes.start(shell(L"trap '' TERM; echo ready; while :; do sleep 0.05; done"), {});
    char buffer[16];
    ASSERT_GT(handle->getOutput()->read(buffer, sizeof buffer, 10.0), 0);
    handle->terminate(0.2);
    EXPECT_EQ(handle->wait(10.0), 128 + SIGKILL);
}
