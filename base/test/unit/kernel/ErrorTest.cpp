#include "kernel/Error.h"
#include "kernel/Raise.h"

#include <gtest/gtest.h>

namespace {

std::string announced;

void note(Error& error) {
    announced += error.what();
    error.getProperties().set("Processor", 3); // the hook may add to the error that is about to be thrown
}

} // namespace

TEST(Error, OddResponsesAreNoTrap) {
    EXPECT_FALSE(Error::isErrorIn(Properties()));
    EXPECT_EQ(Error::getMessage(Properties("{\"Message\":\"no error\"}")), "");
    const Properties odd("{\"Error\":7,\"Message\":[],\"Severity\":\"3\"}");
    EXPECT_TRUE(Error::isErrorIn(odd));
    EXPECT_EQ(Error::getMessage(odd), "");
    EXPECT_FALSE(NonRecoverableError::isNonRecoverableErrorIn(odd));
    Properties more;
    more.set("File", "a.sim");
    more.set(Error::MESSAGE_TAG, "not this one");
    const NonRecoverableError error("it broke", more, "Some::Type");
    EXPECT_EQ(error.getProperties().getString(Error::ERROR_TAG), "Some::Type");
    EXPECT_EQ(error.getProperties().getString("File"), "a.sim");
    EXPECT_EQ(Error::getMessage(error.getProperties()), "it broke");
    Properties whole = odd;
    Error::complete(whole, "text", Error::INPUT_KIND);
    EXPECT_EQ(whole, Properties(R"({"Error":"Server::Error","Message":"text","Severity":2,"Kind":"input"})"));
}

TEST(Error, TheHookHearsOfNonRecoverableErrorsThatAreRaised) {
    const RaiseHook before = setRaiseHook(note);
    const InternalError onlyBuilt("built", "c", "f", 1);
    EXPECT_THROW(raise(InputError("input")), InputError);
    EXPECT_THROW(raise(FloatingPointError("fpe")), RecoverableError);
    try {
        raise(NonRecoverableError("broken"));
    } catch (const Error& error) {
        EXPECT_EQ(error.getProperties().getInt("Processor"), 3);
    }
    EXPECT_EQ(announced, "broken");
    EXPECT_EQ(setRaiseHook(before), note);
}

TEST(Error, AssertionsTellTheirPlaceAndTestOnce) {
    int evaluated = 0;
    const auto fail = [&] { return ++evaluated == 0; };
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
    try {
        ORVEX_ASSERT_AS(false, "words of its own", "text");
    } catch (const NonRecoverableError& error) {
        EXPECT_EQ(error.getProperties().getString("Condition"), "words of its own");
    }
}
