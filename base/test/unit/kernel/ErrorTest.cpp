#include "kernel/Error.h"
#include "kernel/Raise.h"

#include <gtest/gtest.h>

namespace {

int announced = 0;
std::string lastAnnounced;

void countAnnounced(Error& error) {
    ++announced;
    lastAnnounced = error.what();
    error.getProperties().set("Processor", 3); // the hook may add to the error that is about to be thrown
}

/// Installs the hook for its scope.
struct HookScope {
    HookScope() : before(setRaiseHook(countAnnounced)) { announced = 0; }
    ~HookScope() { EXPECT_EQ(setRaiseHook(before), countAnnounced); }
    RaiseHook before;
};

} // namespace

TEST(Error, CarriesItsTags) {
    Properties more;
    more.set("File", "a.sim");
    more.set(Error::MESSAGE_TAG, "not this one");
    const NonRecoverableError error("it broke", more, "Some::Type");
    const Properties& properties = error.getProperties();
    EXPECT_STREQ(error.what(), "it broke");
    EXPECT_EQ(properties.getString(Error::ERROR_TAG), "Some::Type");
    EXPECT_EQ(properties.getString("File"), "a.sim");
    EXPECT_TRUE(NonRecoverableError::isNonRecoverableErrorIn(properties));
    EXPECT_EQ(Error::getMessage(properties), "it broke");
    EXPECT_FALSE(error.isCollective());
    EXPECT_FALSE(NonRecoverableError::isNonRecoverableErrorIn(InputError("typed wrong").getProperties()));
    EXPECT_TRUE(SystemError("", 2, Properties(), Error::DEFAULT_ERROR_TYPE, true).isCollective());
}

TEST(Error, OddResponsesAreNoTrap) {
    EXPECT_FALSE(Error::isErrorIn(Properties()));
    EXPECT_EQ(Error::getMessage(Properties("{\"Message\":\"no error\"}")), "");
    const Properties odd("{\"Error\":7,\"Message\":[],\"Severity\":\"3\"}");
    EXPECT_TRUE(Error::isErrorIn(odd));
    EXPECT_EQ(Error::getMessage(odd), "");
    EXPECT_FALSE(NonRecoverableError::isNonRecoverableErrorIn(odd));
    Properties whole = odd;
    Error::complete(whole, "text", Error::INPUT_KIND);
    EXPECT_EQ(whole, Properties(R"({"Error":"Server::Error","Message":"text","Severity":2,"Kind":"input"})"));
}

TEST(Error, TheHookHearsOfNonRecoverableErrorsThatAreRaised) {
    const HookScope hook;
    const InternalError onlyBuilt("built", "c", "f", 1);
    EXPECT_THROW(raise(InputError("input")), InputError);
    EXPECT_THROW(raise(FloatingPointError("fpe")), RecoverableError);
    EXPECT_EQ(announced, 0);
    try {
        raise(NonRecoverableError("broken"));
    } catch (const Error& error) {
        EXPECT_EQ(error.getProperties().getInt("Processor"), 3);
    }
    EXPECT_EQ(announced, 1);
    EXPECT_EQ(lastAnnounced, "broken");
}

TEST(Error, AssertionsTellTheirPlaceAndTestOnce) {
    const HookScope hook;
    int evaluated = 0;
    const auto fail = [&] {
        ++evaluated;
        return false;
    };
    ORVEX_ASSERT(!fail(), "fine");
    const int line = __LINE__ + 2;
    try {
        ORVEX_ASSERT(fail(), "seen " + std::to_string(evaluated));
        FAIL();
    } catch (const InternalError& error) {
        const Properties& properties = error.getProperties();
        EXPECT_STREQ(error.what(), "seen 2");
        EXPECT_EQ(properties.getString("Condition"), "fail()");
        EXPECT_EQ(properties.getString("File"), "base/test/unit/kernel/ErrorTest.cpp");
        EXPECT_EQ(properties.getInt("Line"), line);
        const std::string trace = properties.getString(Error::STACK_TRACE_TAG);
        EXPECT_NE(trace.find("AssertionsTellTheirPlaceAndTestOnce"), std::string::npos) << trace;
    }
    EXPECT_EQ(evaluated, 2);
    EXPECT_EQ(announced, 1);
    try {
        ORVEX_ASSERT_AS(false, "words of its own", "text");
    } catch (const NonRecoverableError& error) {
        EXPECT_EQ(error.getProperties().getString("Condition"), "words of its own");
    }
}
