#pragma once

#include "parallel/harness/ParallelTest.h"

#include "mpiwrapper/OxmMpi.h"

#include <cstring>
#include <string>
#include <vector>

// Shorthand of the wrapper's tests.

namespace WrapperTest {

using ParallelTest::rank;
using ParallelTest::size;

constexpr int WORLD = OXM_MPI_COMM_WORLD;
constexpr int INT = OXM_MPI_INT;

inline std::size_t ranks() {
    return static_cast<std::size_t>(size());
}

inline std::string errorText(int code) {
    char text[OXM_MPI_MAX_ERROR_STRING] = "";
    int length = -1;
    EXPECT_EQ(OXM_MPI_Error_string(code, text, &length), OXM_MPI_SUCCESS);
    EXPECT_EQ(std::strlen(text), static_cast<std::size_t>(length));
    return text;
}

/// For calls that must succeed.
inline testing::AssertionResult isGood(int code) {
    if (code == OXM_MPI_SUCCESS)
        return testing::AssertionSuccess();
    return testing::AssertionFailure() << "code " << code << ": " << errorText(code);
}

} // namespace WrapperTest

#define ORVEX_GOOD(call)                                                                                     \
    do {                                                                                                     \
        ASSERT_TRUE(WrapperTest::isGood(call)) << #call;                                                     \
    } while (false)
