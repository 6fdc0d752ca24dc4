// The exit value of a process and its text, and the functions for the end of the process.

#include "machine/ExitStatus.h"
#include "machine/AtExitRegister.h"

#include "unit/machine/Failures.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <stdexcept>

TEST(ExitStatus, AddsCodesToAWordAndAMessage) {
    struct Row {
        std::vector<unsigned> codes;
        int word;
        const char* message;
    };
    const Row rows[] = {
        {{0}, 0, ""},
        {{1}, 1, ""},
        {{2, 6, 6}, 34, "Non-recoverable server error,Invalid server argument"},
        {{2, 3, 5, 6, 1},
         55,
         "Non-recoverable server error,Floating point error during last iteration,File error,Invalid server "
         "argument"},
    };
    for (const Row& row : rows) {
        ExitStatus byCode;
        ExitStatus byStatus;
        for (const unsigned code : row.codes) {
            byCode += static_cast<ExitStatus::ErrorCode>(code);
            byStatus += ExitStatus(static_cast<ExitStatus::ErrorCode>(code));
        }
        EXPECT_EQ(static_cast<int>(byCode), row.word);
        EXPECT_EQ(static_cast<int>(byStatus), row.word);
        EXPECT_EQ(byCode.hasError(), row.word != 0);
        EXPECT_EQ(byCode.getMessage(), row.message);
    }
    EXPECT_THROW(ExitStatus{static_cast<ExitStatus::ErrorCode>(7)}, std::out_of_range);
}

TEST(AtExitRegister, CallsItsFunctionsAtTheExitAndRefusesMoreThanThereIsRoomFor) {
    // In a child: a registration stays for the life of the process. The library has used up one of 32 places.
    const auto fillUp = [] {
        for (unsigned i = 1; i < AtExitRegister::maxRegistrations; ++i)
            AtExitRegister::registerFunction(
                [] { std::fprintf(stderr, AtExitRegister::isExiting() ? "too early\n" : "called\n"); });
        std::fputs(messageOf<InternalError>([] { AtExitRegister::registerFunction([] {}); }).c_str(), stderr);
        std::exit(3);
    };
    EXPECT_EXIT(fillUp(), testing::ExitedWithCode(3),
                "^Exhausted default limit on number of atexit functions(called\n){31}");
}
