// The output of a process: redirection of descriptors, the two standard streams, the console of a rank.

#include "machine/AtExitRegister.h"
#include "machine/StandardStreamManager.h"
#include "machine/StreamRedirector.h"
#include "machine/files/ParallelConsoleBuf.h"

#include "kernel/Raise.h"
#include "platform/FileSystem.h"
#include "platform/StringHelper.h"

#include "unit/machine/Failures.h"
#include "unit/machine/MachineTestAccess.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <iostream>
#include <sstream>
#include <thread>
#include <utility>

#include <sys/stat.h>
#include <unistd.h>

namespace {

class StandardStreams : public testing::Test {
protected:
    void SetUp() override {
        MachineTestAccess::startAfresh();
        MachineTestAccess::setExecutableName("server.exe");
        _directory = Platform::filesystem().makeTemporaryDirectory(
            Platform::filesystem().getDefaultTemporaryDirectory(), L"streams");
        ASSERT_FALSE(_directory.empty());
    }
    void TearDown() override {
        MachineTestAccess::startAfresh();
        EXPECT_TRUE(Platform::filesystem().deleteTree(_directory));
    }

    std::wstring path(const std::wstring& name) const {
        return Platform::filesystem().join(_directory, name);
    }
    std::string content(const std::wstring& name) const {
        std::ifstream file(StringHelper::toString(path(name)));
        std::ostringstream text;
        text << file.rdbuf();
        return file ? text.str() : "no file";
    }

    std::wstring _directory;
};

using ParallelConsole = StandardStreams;

TEST_F(StandardStreams, RedirectorMovesAStreamForGoodOrNotAtAll) {
    FILE* const stream = std::fopen(StringHelper::toString(path(L"stream")).c_str(), "w");
    FILE* const other = std::fopen(StringHelper::toString(path(L"other")).c_str(), "w");
    ASSERT_TRUE(stream && other);
    std::fputs("before ", stream);
    {
        StreamRedirector mover(stream, path(L"lost"));
        mover.setRestoreDescriptor(fileno(other));
        EXPECT_THROW(mover.setRestoreDescriptor(-1), SystemError);
    }
    std::fputs("moved", stream);
    EXPECT_THROW(StreamRedirector(stream, path(L"missing/file")), SystemError);
    EXPECT_THROW(StreamRedirector(stream, -1), SystemError);
    std::fputs(" for good", stream);
    std::fclose(stream);
    std::fclose(other);
    EXPECT_EQ(content(L"stream"), "before ");
    EXPECT_EQ(content(L"other"), "moved for good");
    EXPECT_EQ(content(L"lost"), "");
}

/// A row's steps: w writes the number of the step to both streams, n silences, r restores, f moves to the
/// files, d destroys the manager, o opens one whose directory ends in a separator.
TEST_F(StandardStreams, AreSilencedRestoredAndMoved) {
    constexpr struct {
        const char *steps, *console, *log;
    } ROWS[] = {
        {"w", "1", ""},     {"wnwrw", "15", ""},  {"nnwrw", "5", ""},   {"rw", "2", ""},
        {"wfw", "1", "3"},  {"wffw", "1", "4"},   {"wnfwrw", "1", "6"}, {"fnwrw", "", "5"},
        {"fwrw", "", "24"}, {"nfrnwrw", "", "7"},
    };
    for (const auto& row : ROWS) {
        SCOPED_TRACE(row.steps);
        std::wstring logs[2];
        {
            // These two stand for the console.
            const StreamRedirector out(stdout, path(L"out"));
            const StreamRedirector error(stderr, path(L"error"));
            {
                StandardStreamManager manager(_directory, false);
                int number = 0;
                for (const char* step = row.steps; *step != '\0'; ++step) {
                    ++number;
                    if (*step == 'w') {
                        std::printf("%d", number);
                        std::fprintf(stderr, "%d", number);
                    } else if (*step == 'n') {
                        manager.redirectToNullDevice();
                    } else if (*step == 'r') {
                        manager.restore();
                    } else {
                        std::tie(logs[0], logs[1]) = manager.redirectOriginalStreamsToFile();
                    }
                }
                std::fflush(stdout);
                EXPECT_EQ(manager.hasRedirectedOriginalStreams(), !logs[0].empty());
                const std::wstring stem = L"server" + std::to_wstring(getpid()) + L"-std";
                if (manager.hasRedirectedOriginalStreams()) {
                    EXPECT_EQ(logs[0], path(stem + L"out.txt"));
                    EXPECT_EQ(logs[1], path(stem + L"err.txt"));
                    EXPECT_EQ(content(stem + L"out.txt"), row.log);
                    EXPECT_EQ(content(stem + L"err.txt"), row.log);
                }
            }
            for (const std::wstring& log : logs)
                EXPECT_FALSE(Platform::filesystem().exists(log)) << "a log that outlives its manager";
        }
        EXPECT_EQ(content(L"out"), row.console);
        EXPECT_EQ(content(L"error"), row.console);
    }
}

TEST_F(StandardStreams, MoveIntoNewFilesOfTheirUser) {
    for (const auto& [program, suffix, stem] :
         {std::tuple("orvexsim", L"", L"orvexsim"), std::tuple("a.b.c", L"", L"a.b"),
          std::tuple("x", L"/", L"x")}) {
        MachineTestAccess::setExecutableName(program);
        const StreamRedirector out(stdout, path(L"out"));
        const StreamRedirector error(stderr, path(L"error"));
        StandardStreamManager manager(_directory + suffix, false);
        EXPECT_TRUE(manager.hasNullRedirection());
        // A link that somebody laid where the file is to come is replaced, not followed.
        const std::string log =
            StringHelper::toString(path(stem + std::to_wstring(getpid()) + L"-stderr.txt"));
        ASSERT_EQ(symlink("elsewhere", log.c_str()), 0);
        EXPECT_EQ(StringHelper::toString(manager.redirectOriginalStreamsToFile().second), log);
        struct stat status {};
        EXPECT_EQ(lstat(log.c_str(), &status), 0);
        EXPECT_EQ(status.st_mode, S_IFREG | S_IRUSR | S_IWUSR);
        EXPECT_EQ(content(L"elsewhere"), "no file");
        manager.redirectToNullDevice();
        EXPECT_FALSE(manager.hasNullRedirection());
    }
    StandardStreamManager nowhere(path(L"missing"), false);
    expectAssertion([&] { nowhere.redirectOriginalStreamsToFile(); }, "Failed to redirect stdout",
                    "!stdoutLogFile.empty()", "StandardStreamManager.cpp");
}

/// A row's steps: C and c switch the console on and off, L and l the log; a point flushes, E ends the line, a
/// bar ends a write; the rest is text.
TEST_F(ParallelConsole, WritesBlocksWithPrefixesAndLogs) {
    constexpr auto MASTER = Machine::MASTER_MODE;
    constexpr auto WORKER = Machine::WORKER_MODE;
    constexpr struct {
        const char* name;
        Machine::SerialParallelMode mode;
        unsigned ranks, rank;
        const char *steps, *console, *log;
    } ROWS[] = {
        {"the master prints without a prefix", MASTER, 2, 0, "a 1E", "a 1\n", "no file"},
        {"a worker is silent", WORKER, 2, 1, "a 1E", "", "no file"},
        {"one digit", WORKER, 9, 3, "LCbE", "Proc[3] : b\n", "Proc[3] : b\n"},
        {"two digits", WORKER, 10, 3, "LCbE", "Proc[ 3] : b\n", "Proc[ 3] : b\n"},
        {"three digits", WORKER, 101, 100, "LCbE", "Proc[100] : b\n", "Proc[100] : b\n"},
        {"the master's console can't be turned off", MASTER, 2, 0, "cx.", "x", "no file"},
        {"each block has its prefix", WORKER, 2, 1, "C12345678|9876543210..x.",
         "Proc[1] : 12345678Proc[1] : 98765432Proc[1] : 10Proc[1] : x", "no file"},
        {"text goes where it was to go when it was written", WORKER, 2, 1, "1C2L3l4c5.",
         "Proc[1] : 2Proc[1] : 3Proc[1] : 4", "Proc[1] : 3"},
        {"a log that is opened anew is emptied", WORKER, 2, 1, "L1.L2.lL3.", "", "3"},
    };
    constexpr int BUFFER_SIZE = 8;
    for (const auto& row : ROWS) {
        SCOPED_TRACE(row.name);
        MachineTestAccess::playRole(row.mode, row.ranks, row.rank);
        const std::wstring log = L"partition" + std::to_wstring(row.rank) + L".log";
        std::ostringstream stream;
        {
            const StreamRedirector console(stdout, path(L"console"));
            std::streambuf* const own = stream.rdbuf();
            {
                ParallelConsoleBuf buffer(stream, StringHelper::toString(_directory), false, false,
                                          BUFFER_SIZE);
                std::string text;
                for (const char* step = row.steps; *step != '\0'; ++step) {
                    if (!std::strchr("CcLl.E|", *step)) {
                        text += *step;
                        continue;
                    }
                    stream << std::exchange(text, "");
                    if (*step == 'C' || *step == 'c') {
                        buffer.enableConsole(*step == 'C');
                        EXPECT_EQ(buffer.isConsoleOn(), row.mode == MASTER || *step == 'C');
                    } else if (*step == 'L' || *step == 'l') {
                        buffer.enableLogFile(*step == 'L');
                    } else if (*step == 'E') {
                        stream << std::endl;
                    } else if (*step == '.') {
                        stream << std::flush;
                    }
                }
            }
            EXPECT_EQ(stream.rdbuf(), own);
        }
        EXPECT_EQ(content(L"console"), row.console);
        EXPECT_EQ(content(log), row.log);
        static_cast<void>(Platform::filesystem().deleteFile(path(log)));
    }
}

TEST_F(ParallelConsole, IsSharedByThreadsWithoutLoss) {
    constexpr int THREADS = 4;
    constexpr int LINES = 500;
    MachineTestAccess::playRole(Machine::MASTER_MODE, 2, 0);
    {
        const StreamRedirector console(stdout, path(L"console"));
        std::ostringstream stream;
        ParallelConsoleBuf buffer(stream, StringHelper::toString(_directory), false, false, 255);
        std::vector<std::thread> threads;
        for (int thread = 0; thread < THREADS; ++thread)
            threads.emplace_back([&buffer, thread] {
                for (int line = 0; line < LINES; ++line) {
                    buffer.sputn("0123456789", 10);
                    buffer.sputc(static_cast<char>('a' + thread));
                    if (line % 7 == 0)
                        buffer.pubsync();
                }
            });
        for (std::thread& thread : threads)
            thread.join();
    }
    const std::string text = content(L"console");
    EXPECT_EQ(text.size(), static_cast<std::size_t>(THREADS * LINES * 11));
    for (int thread = 0; thread < THREADS; ++thread)
        EXPECT_EQ(std::count(text.begin(), text.end(), 'a' + thread), LINES);
}

TEST_F(ParallelConsole, IsSilentOnceTheProcessIsExiting) {
    MachineTestAccess::playRole(Machine::MASTER_MODE, 2, 0);
    const auto printWhileExiting = [this] {
        dup2(STDERR_FILENO, STDOUT_FILENO);
        std::ostringstream stream;
        ParallelConsoleBuf buffer(stream, StringHelper::toString(_directory), false, false, 255);
        stream << "pending";
        AtExitRegister::setExiting();
        stream << "dropped" << std::endl;
        std::_Exit(7);
    };
    EXPECT_EXIT(printWhileExiting(), testing::ExitedWithCode(7), "^$");
}

} // namespace
