#include "platform/Log.h"

#include "platform/StringHelper.h"
#include "support/TemporaryDirectory.h"

#include <gtest/gtest.h>

#include <algorithm>

namespace {

class LogTest : public testing::Test {
protected:
    void SetUp() override { log.setStandardError(false); }
    void TearDown() override {
        log.setListener(nullptr);
        log.setFile(L"");
        log.setLevel(OS::Log::WARNING_LEVEL);
        OS::Log::setProcessTag("");
        log.setStandardError(true);
    }

    TemporaryDirectory directory;
    OS::Log& log = OS::Log::instance("Default");
};

} // namespace

TEST_F(LogTest, DataStandsForItsPlaces) {
    for (const auto& [text, expected] :
         {std::pair("", ""),
          {"#LPUs = @0@, mask = @1@", "#LPUs = 4, mask = 0-3"},
          {"@1@@0@@1@", "0-340-3"},
          {"@2@ stays, so do @ and @x@ and @-1@", "@2@ stays, so do @ and @x@ and @-1@"},
          {"ann@host @0@", "ann@host 4"},
          {"@@0@@", "@4@"}})
        EXPECT_EQ(OS::Log::format(text, {"4", "0-3"}), expected);
    EXPECT_EQ(OS::Log::format("@0@", {"@0@"}), "@0@"); // data isn't looked into
}

TEST_F(LogTest, LinesBearTheirContext) {
    const std::wstring path = directory / L"log.txt";
    ASSERT_TRUE(log.setFile(path));
    log.info("LogTest", "warnings and errors are on at first");
    log.setLevel(OS::Log::OFF);
    log.error("LogTest", "nothing is");
    log.setLevel(OS::Log::DEBUG_LEVEL);
    OS::Log::setProcessTag("rank 3");
    std::vector<OS::Log::Record> records;
    log.setListener([&](const OS::Log::Record& record) {
        records.push_back(record);
        log.error("LogTest::listener", "goes nowhere");
    });
    int line = __LINE__ + 1;
    log.debug("A::a", "@0@ @1@ @2@ @3@", 1, L"w\x20AC", true, std::string("s"));
    log.info("A::b", "i");
    log.warning("A::c", "w");
    log.error("A::d", "e");
    ASSERT_EQ(records.size(), 4u);
    EXPECT_EQ(records[0].text, "1 w\xE2\x82\xAC true s");

    std::string content;
    ASSERT_TRUE(Platform::filesystem().readFile(path, content, 10000));
    const auto at = [&](int offset) { return std::to_string(line + offset); };
    // Behind the time, which is nobody's to foretell.
    std::string lines;
    for (const std::string& whole : StringHelper::tokenize(content, "\n"))
        lines += whole.substr(std::min(whole.size(), std::string("[2000-01-01 00:00:00.000]").size())) + "\n";
    const std::string head = " [rank 3] [Default] ";
    EXPECT_EQ(lines, head + "[debug] [A::a:" + at(0) + "] 1 w\xE2\x82\xAC true s\n" + head +
                         "[info] [A::b:" + at(1) + "] i\n" + head + "[warning] [A::c:" + at(2) + "] w\n" +
                         head + "[error] [A::d:" + at(3) + "] e\n");
    EXPECT_FALSE(log.setFile(L"/proc/orvex/log.txt"));
}
