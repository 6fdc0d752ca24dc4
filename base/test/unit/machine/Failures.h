#pragma once

#include "kernel/Error.h"

#include <gtest/gtest.h>

#include <functional>
#include <string>

/// The message of the error that `operation` raises; empty when it raises none.
template <class E>
std::string messageOf(const std::function<void()>& operation) {
    try {
        operation();
    } catch (const E& error) {
        return Error::getMessage(error.getProperties());
    }
    return {};
}

/// Expects an assertion with all that it tells. `line` 0: any.
inline void expectAssertion(const std::function<void()>& operation, const std::string& message,
                            const std::string& condition, const std::string& file, int line = 0) {
    try {
        operation();
        ADD_FAILURE() << "nothing is raised, expected: " << message;
    } catch (const InternalError& error) {
        const Properties& told = error.getProperties();
        EXPECT_EQ(Error::getMessage(told), message);
        EXPECT_EQ(told.getString("Condition"), condition);
        EXPECT_EQ(told.getString("File"), "base/src/machine/" + file);
        EXPECT_TRUE(line ? told.getInt("Line") == line : told.getInt("Line") > 0) << told.getInt("Line");
    }
}
