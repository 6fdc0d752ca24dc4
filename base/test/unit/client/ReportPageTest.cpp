#include "client/report/ReportPage.h"
#include "client/CtlReport.h"

#include "kernel/Error.h"
#include "platform/FileSystem.h"
#include "platform/StringHelper.h"
#include "support/TemporaryDirectory.h"

#include <gtest/gtest.h>

#include <initializer_list>

namespace {

constexpr const char* HEAD = R"("format":"orvex-profile","version":1,"ranks":2)";

std::string profile(const std::string& rest) {
    return std::string("{") + HEAD + (rest.empty() ? "" : ",") + rest + "}";
}

std::string pageOf(const std::string& rest) {
    return ReportPage::make(ReportData::parse(profile(rest)));
}

bool contains(const std::string& text, const std::string& part) {
    return text.find(part) != std::string::npos;
}

TEST(ReportData, RefusesWhatIsNoProfile) {
    const std::string host = R"("hosts":[{"name":"a","ranks":[0,1]}])";
    for (
        const auto& [json, reason] : std::initializer_list<std::pair<std::string, const char*>>{
            {"", "This is no profile: at byte 0: The document is empty."},
            {"[1]", "This is no profile: it isn't a JSON object"},
            {"{}", "This is no profile: it has no \"format\" with the value \"orvex-profile\""},
            {R"({"format":"orvex-profile","version":2})",
             "The profile has version 2; this orvexctl knows version 1"},
            {R"({"format":"orvex-profile","version":1})",
             "The profile is damaged: it doesn't tell the number of ranks"},
            {R"({"format":"orvex-profile","version":1,"ranks":0.5})",
             "The profile is damaged: ranks isn't an integer from 1 to 1000000"},
            {profile(R"("spans":[])"), "The profile is damaged: spans isn't an object"},
            {profile(R"("spans":{"waiting":[1,2,3]})"),
             "The profile is damaged: spans.waiting has 3 numbers for 2 ranks"},
            {profile(R"("spans":{"waiting":[1,-2]})"),
             "The profile is damaged: spans.waiting holds a negative number"},
            {profile(R"("spans":{"waiting":[1,"x"]})"),
             "The profile is damaged: spans.waiting isn't a number, or holds something else"},
            {profile(R"("spans":{"seconds":1e300})"),
             "The profile is damaged: spans.seconds holds a number that is too large"},
            {profile(
                 R"("events":{"list":[{"name":"a","parent":1,"seconds":[1,1]},{"name":"b","parent":0,"seconds":[1,1]}]})"),
             "The profile is damaged: events has events that are their own parents"},
            {profile(R"("events":{"list":[{"name":"a","parent":7,"seconds":[1,1]}]})"),
             "The profile is damaged: events.list[0].parent isn't an integer from -1 to 0"},
            {profile(R"("events":{"list":[{"name":"a"}]})"),
             "The profile is damaged: events.list[0] has no seconds"},
            {profile(host + R"(,"rankHost":[0,1])"),
             "The profile is damaged: rankHost names a host that isn't listed"},
            {profile(R"("hosts":[{"ranks":[2]}])"),
             "The profile is damaged: hosts[0].ranks[0] isn't an integer from 0 to 1"},
            {profile(host + R"(,"messages":{"partners":{"counts":[[1]]}})"),
             "The profile is damaged: messages.partners has 1 rows, another number than there are partners"},
            {profile(host + R"(,"memory":{"times":[1,2],"hosts":[{"host":0,"resident":[1]}]})"),
             "The profile is damaged: memory.hosts[0] has another number of values than there are times"},
            {profile(R"("bills":[{"waiting":{"maxRank":2}}])"),
             "The profile is damaged: bills[0].waiting.maxRank isn't an integer from 0 to 1"},
            {profile("\"product\":\"\xff\""), "This is no profile: at byte 59: Invalid encoding in string."},
        }) {
        try {
            ReportData::parse(json);
            ADD_FAILURE() << json;
        } catch (const InputError& error) {
            EXPECT_STREQ(error.what(), reason);
        }
    }
    const std::string deep(1000000, '[');
    EXPECT_THROW(ReportData::parse(profile("\"a\":" + deep)), InputError);
}

TEST(ReportPage, LeavesOutWhatIsMissing) {
    const std::string page = pageOf("");
    for (const char* part : {"Not measured", "orvexctl ChangeEventLoggerManager type=timer",
                             "orvexctl EnableMpiStatistics enableFlag=true",
                             "orvexctl EnableSystemMonitor enable=true", "default-src 'none'"})
        EXPECT_TRUE(contains(page, part)) << part;
    for (const char* part :
         {"id=\"balance\"", "id=\"events\"", "id=\"memory\"", "id=\"start\"", "http://", "https://"})
        EXPECT_FALSE(contains(page, part)) << part;
    pageOf(
        R"("spans":{"seconds":1,"waiting":[{"$real":"nan"},0],"processor":[]},"memory":{"times":[],"hosts":[]},)"
        R"("events":{"on":true,"list":[{"name":"","seconds":[0,0]}]},"messages":{"operations":[{}]},"bills":[{}],)"
        R"("start":[{}],"options":{})");
}

TEST(ReportPage, EscapesAllTexts) {
    const std::string evil = R"(</script><script>alert(1)</script>\"'&<img src=x onerror=y>)";
    const std::string longName(300, 'x');
    const std::string page = pageOf(
        R"("session":")" + evil + R"(","product":")" + evil + R"(","mpi":")" + evil + R"(","build":"debug )" +
        evil + R"(","commandLine":")" + evil + R"(","warnings":[")" + evil + R"("],"hosts":[{"name":")" +
        evil +
        R"(","cores":1,"ranks":[0,1],"affinity":{"processors":[0,1],"ofRank":[[0],[0]]}}],"rankHost":[0,0],)" +
        R"("start":[{"step":")" + evil +
        R"(","seconds":1}],"spans":{"seconds":10,"waiting":[0,9],"peakMemory":[1,2]},)" +
        R"("events":{"on":true,"list":[{"name":")" + evil + R"(","seconds":[1,2]},{"name":")" + longName +
        R"(","seconds":[1,2]}]},"messages":{"operations":[{"name":")" + evil + R"(","kind":")" + evil +
        R"(","count":[1],"seconds":[1]}],"partners":{"byHost":true,"counts":[[1]]}},"memory":{"times":[0,1],)" +
        R"("hosts":[{"host":0,"resident":[1,2],"max":[1,2]}]},"bills":[{"command":")" + evil +
        R"(","client":")" + evil + R"(","wall":1}],"options":{")" + evil + R"(":")" + evil + R"("})");
    EXPECT_FALSE(contains(page, "<script>alert"));
    EXPECT_FALSE(contains(page, "<img"));
    EXPECT_FALSE(contains(page, longName.substr(0, 120) + "<"));
    std::size_t scripts = 0;
    for (std::size_t at = page.find("<script"); at != std::string::npos; at = page.find("<script", at + 1))
        ++scripts;
    EXPECT_EQ(scripts, 3u); // two tables of data and the page's own
}

TEST(CtlReport, WritesTheFileInOneStep) {
    const TemporaryDirectory folder;
    CtlConsole console;
    Platform::FileSystem& files = Platform::filesystem();
    const auto write = [&](const CtlReport& report, bool json = false) {
        return report.write(profile(""), "a/b c.sim", json, console);
    };
    const std::string path = files.toSystem(folder / L"r.html");
    files.createFile(folder / L"r.html");
    EXPECT_EQ(write({"", path}), "The report is in " + path);
    EXPECT_GT(files.getSize(folder / L"r.html"), 1000);
    EXPECT_EQ(write({"", path}, true), "The profile is in " + path);
    std::string text;
    EXPECT_TRUE(files.readFile(folder / L"r.html", text, 1000));
    EXPECT_EQ(text, profile("") + "\n");
    EXPECT_THROW(write({"", "/dev/full"}), OutputError);
    EXPECT_THROW(write({"", files.toSystem(folder.getPath())}), OutputError);
    EXPECT_THROW(write({"", path + "/x"}), OutputError);
    std::vector<std::wstring> directories;
    std::vector<std::wstring> names;
    EXPECT_TRUE(files.listDirectory(folder.getPath(), directories, names));
    EXPECT_EQ(names.size(), 1u); // no rest of a failed try
    for (const std::vector<CommandWords::Word>& words :
         std::initializer_list<std::vector<CommandWords::Word>>{{{"x"}}, {{"--output"}}, {{"--from"}, {""}}})
        EXPECT_THROW(CtlReport::parse(words), UsageError);
}

} // namespace
