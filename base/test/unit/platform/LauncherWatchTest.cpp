#include "platform/LauncherWatch.h"

#include "platform/Pipe.h"
#include "platform/Process.h"
#include "platform/StringHelper.h"
#include "platform/Time.h"
#include "support/TemporaryDirectory.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <sstream>
#include <sys/prctl.h>
#include <sys/wait.h>

namespace {

constexpr int WATCH_STATUS = 7; // of PlatformProbe.cpp

/// A tree of real processes with the names of launchers; its innermost one is the rank that watches.
class LauncherWatchTest : public testing::Test {
protected:
    // Orphans become our children, so that how they end can be seen.
    void SetUp() override { ASSERT_EQ(::prctl(PR_SET_CHILD_SUBREAPER, 1), 0); }
    void TearDown() override {
        Platform::process().kill(rank);
        if (tree)
            tree->terminate(0.0);
        while (::waitpid(-1, nullptr, 0) > 0) {
        }
        ::prctl(PR_SET_CHILD_SUBREAPER, 0);
    }

    void start(const std::vector<std::string>& names, const std::wstring& how) {
        std::vector<std::wstring> command;
        for (const std::string& name : names) {
            const std::wstring program = directory / StringHelper::toWString(name);
            if (!std::filesystem::exists(program))
                std::filesystem::create_symlink("/bin/sh", program);
            command.insert(command.end(), {program, L"-c", L"exec 2>/dev/null; \"$@\"; exit $?",
                                           L"sh"}); // a process of its own
        }
        command.insert(command.end(), {StringHelper::toWString(ORVEX_PROBE), how});
        Platform::Process::StartOptions options;
        // Built with the thread sanitizer, a process lingers at its end and tells of threads that _exit cuts
        // off.
        options.environment = {{"TSAN_OPTIONS", "atexit_sleep_ms=0:report_thread_leaks=0"}};
        tree = Platform::process().start(command, options);
        std::istringstream line(readLine());
        line >> rank;
        ancestors.clear();
        for (LauncherWatch::Ancestor ancestor{}; line >> ancestor.pid >> ancestor.name;)
            ancestors.push_back(ancestor);
    }
    /// The next line that the rank prints; empty at the end or when none comes.
    std::string readLine() {
        std::string line;
        char character = 0;
        while (tree->getOutput()->read(&character, 1, 10.0) > 0 && character != '\n')
            line += character;
        return line;
    }
    /// How an orphan ended: its exit status, -1 when it didn't within the time limit.
    static int await(int pid, double timeLimit) {
        const double end = Platform::time().getTime() + timeLimit;
        while (Platform::time().getTime() < end) {
            int status = 0;
            if (::waitpid(pid, &status, WNOHANG) == pid)
                return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
            Platform::time().sleep(0.01);
        }
        return -1;
    }

    TemporaryDirectory directory;
    std::unique_ptr<OS::Process::ProcessHandle> tree;
    int rank = 0;
    std::vector<LauncherWatch::Ancestor> ancestors;
};

} // namespace

TEST_F(LauncherWatchTest, ARankEndsWithAnyOfItsAncestors) {
    const struct {
        std::vector<std::string> tree;
        std::string watched;
        std::size_t victim;
        std::wstring how;
    } rows[] = {{{"outer", "mpirun.test", "wrapper"}, "wrapper mpirun.test ", 1, L"plain"},
                {{"outer", "mpirun.test", "wrapper"}, "wrapper mpirun.test ", 0, L"plain"},
                {{"mpiexec", "hydra_pmi_proxy"}, "hydra_pmi_proxy mpiexec ", 1, L"hang"},
                {{"mpiexec", "test-harness", "srun"}, "srun ", 0, L"plain"},
                {{"one", "two"}, "two ", 0, L"plain"},
                {{"one", "two"}, "two ", 0, L"stopped"}};
    for (const auto& row : rows) {
        start(row.tree, row.how);
        std::string watched;
        for (const auto& ancestor : ancestors)
            watched += ancestor.name + " ";
        ASSERT_EQ(watched, row.watched);
        const auto& victim = ancestors[row.victim];
        ASSERT_TRUE(Platform::process().kill(victim.pid));
        const bool lives = row.how == L"stopped"; // until it ends by itself
        EXPECT_EQ(readLine(), lives ? ""
                                    : "The process " + std::to_string(victim.pid) + " (" + victim.name +
                                          "), which held this job, has ended");
        // The orphan is the process below the victim; between it and the rank, each passes the status on.
        EXPECT_EQ(await(row.victim == 0 ? rank : ancestors[row.victim - 1].pid, 5.0),
                  lives ? 1 : WATCH_STATUS);
        EXPECT_FALSE(Platform::process().isAlive(rank));
        // Processes outside the watched part are left alone: end them.
        for (const auto& ancestor : ancestors)
            Platform::process().kill(ancestor.pid);
        tree->terminate(0.0);
    }
}

TEST(LauncherWatch, KnowsTheNamesOfLaunchers) {
    for (const std::string name :
         {"mpirun.openmpi", "mpiexec.hydra", "orterun", "orted", "prterun", "prted", "slurmstepd"})
        EXPECT_TRUE(LauncherWatch::isLauncherName(name)) << name;
    for (const std::string name : {"", "bash", "mpirunner", "my.mpirun", "orvexsim", "systemd"})
        EXPECT_FALSE(LauncherWatch::isLauncherName(name)) << name;
}
