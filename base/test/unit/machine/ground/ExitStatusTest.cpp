// The exit value of a process and its text, and the functions for the end of the process.

#include "machine/ExitStatus.h"
#include "machine/AtExitRegister.h"

#include "kernel/Raise.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <stdexcept>

namespace {

TEST(ExitStatus, wordAndMessageOfCodes) {
    struct Row {
        std::vector<unsigned> codes;
        int word;
        const char* message;
    };
    const std::vector<Row> rows = {
        {{}, 0, ""},
        {{0}, 0, ""},
        {{1}, 1, ""},
        {{2}, 2, "Invalid server argument"},
        {{3}, 4, "File error"},
        {{5}, 16, "Floating point error during last iteration"},
        {{6}, 32, "Non-recoverable server error"},
        {{2, 6}, 34, "Non-recoverable server error,Invalid server argument"},
        {{3, 6}, 36, "Non-recoverable server error,File error"},
        {{6, 6}, 32, "Non-recoverable server error"},
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
}

TEST(ExitStatus, unknownCodeIsRefused) {
    ExitStatus status(ExitStatus::FILE_ERROR);
    for (const unsigned code : {7u, 33u, 0xFFFFFFFFu}) {
        const auto unknown = static_cast<ExitStatus::ErrorCode>(code);
        EXPECT_THROW(ExitStatus{unknown}, std::out_of_range);
        try {
            status += unknown;
            ADD_FAILURE() << code;
        } catch (const std::out_of_range& error) {
            EXPECT_STREQ(error.what(), "invalid bitset<N> position");
        }
    }
    EXPECT_EQ(static_cast<int>(status), 4);
}

TEST(AtExitRegister, limitAndOrder) {
    // In a child: what is registered stays for the life of the process. The library has used up one of 32
    // places.
    const auto fillUp = [] {
        for (unsigned i = 1; i < AtExitRegister::maxRegistrations; ++i)
            AtExitRegister::registerFunction(
                [] { std::fprintf(stderr, AtExitRegister::isExiting() ? "too early\n" : "called\n"); });
        try {
            AtExitRegister::registerFunction([] {});
        } catch (const InternalError& error) {
            const std::string message = Error::getMessage(error.getProperties());
            std::fprintf(stderr, "%s|%s\n", message.c_str(),
                         error.getProperties().getString("Condition").c_str());
            std::exit(3);
        }
        std::exit(4);
    };
    EXPECT_FALSE(AtExitRegister::isExiting());
    EXPECT_EXIT(fillUp(), testing::ExitedWithCode(3),
                "Exhausted default limit on number of atexit functions\\|_nRegistered < maxRegistrations\n"
                "(called\n){31}");
}

} // namespace
