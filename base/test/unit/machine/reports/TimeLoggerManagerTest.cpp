#include "machine/TimeLoggerManager.h"

#include "kernel/EventTracker.h"
#include "kernel/MessagingGate.h"
#include "platform/Process.h"

#include "support/TemporaryDirectory.h"
#include "unit/machine/MachineTestAccess.h"
#include "unit/machine/reports/EventClock.h"
#include "unit/machine/reports/EventReports.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <filesystem>
#include <string>

namespace {

class TimeProfile : public testing::Test {
protected:
    TimeProfile() {
        MessagingGate::noteMainThread();
        MachineTestAccess::startAfresh();
        EventClock::wall = EventClock::processor = 50.0;
    }
    ~TimeProfile() override { EventTracker::reset(); }

    static TimeLoggerManager& install(double threshold) {
        auto* manager = new TimeLoggerManager(threshold, EventClock::makeTimer);
        manager->EventLoggerManager::operator=(EventTracker::getSingleton().getEventLoggerManager());
        EventTracker::getSingleton().setEventLoggerManager(manager);
        return *manager;
    }
    /// The tables.
    static std::string report(TimeLoggerManager& manager, const std::string& percent) {
        testing::internal::CaptureStdout();
        manager.report();
        const std::string line = testing::internal::GetCapturedStdout();
        EXPECT_EQ(line.rfind("Event Log : /", 0), 0u) << line;
        const std::string path = line.substr(12, line.size() - 13);
        const std::size_t name = path.rfind('/') + 1;
        EXPECT_EQ(path.rfind("orvexsim+-timed-events--np-1-", name), name) << path;
        const std::string text = readReport(path);
        std::remove(path.c_str());
        const std::string head = headOfReport("Time Profile Output for : ", 1,
                                              "Events that use less than " + percent +
                                                  "% of total sampled time will not be reported.");
        EXPECT_EQ(text.substr(0, head.size()), head);
        return text.size() < head.size() ? text : text.substr(head.size());
    }
};

const std::string HEADINGS = " |Event Counter    |Elapsed Time (s) |CPU Time (s)     |% Elapsed Time   |\n";

std::string rule(char character, std::size_t length) {
    return '|' + std::string(length, character) + "|\n";
}

TEST_F(TimeProfile, OfNoEventIsAHeadAndARule) {
    EXPECT_EQ(report(install(0.25), "25"),
              rule('=', 74) + "|        " + " " + HEADINGS + rule('-', 74) + rule('-', 74));
}

TEST_F(TimeProfile, CountsNestedAndOpenEventsOnceAndOrdersByTime) {
    EventTracker::getSingleton().getEventLoggerManager().switchOn();
    const EventTracker::Track before("Open", "before");
    TimeLoggerManager& manager = install(0.01);
    {
        const EventTracker::Track outer("Nested", "twice");
        EventClock::pass(1.0);
        const EventTracker::Track inner("Nested", "twice");
        EventClock::pass(1.0);
    }
    manager.switchOn(); // is on: the sampled time goes on
    for (const char* name : {"Same time b", "Same time a", "Too short"}) {
        const EventTracker::Track track(name, "");
        EventClock::pass(*name == 'S' ? 0.5 : 0.04);
    }
    EventClock::pass(0.96);
    const std::string head = rule('=', 88) + "|               " + HEADINGS + rule('-', 88);
    const std::string rest =
        "| Nested / twice |               2 |          2.0000 |          1.0000 |         50.0000 |\n"
        "| Same time a /  |               1 |          0.5000 |          0.2500 |         12.5000 |\n"
        "| Same time b /  |               1 |          0.5000 |          0.2500 |         12.5000 |\n";
    const std::string open =
        "| Open / before  |               1 |          4.0000 |          2.0000 |        100.0000 |\n";
    for (int time = 0; time < 2; ++time)
        EXPECT_EQ(report(manager, "1"), head + open + rest + rule('-', 88));
    manager.switchOff();
    EventClock::pass(4.0); // the open event goes on, the sampled time doesn't
    EXPECT_NE(report(manager, "1").find("|          8.0000 |          4.0000 |        200.0000 |"),
              std::string::npos);
}

TEST_F(TimeProfile, WithoutSampledTimeHasNoPercentages) {
    TimeLoggerManager& manager = install(0.01);
    manager.EventLoggerManager::switchOn(); // its own timer stands
    manager.startEventLog("Only", "event");
    EventClock::pass(2.0);
    manager.stopEventLog("Only", "event");
    EXPECT_NE(report(manager, "1")
                  .find("\n| Only / event |               1 |          2.0000 |          1.0000 |          "
                        "0.0000 |\n"),
              std::string::npos);
}

TEST_F(TimeProfile, TellsThatItsFileCantBeWritten) {
    const TemporaryDirectory folder;
    const std::filesystem::path before = std::filesystem::current_path();
    std::filesystem::create_symlink("/dev/full", std::filesystem::path(folder.getPath()) /
                                                     ("orvexsim+-timed-events--np-1-" +
                                                      std::to_string(Platform::process().getPid()) + ".log"));
    for (const std::filesystem::path& path :
         {std::filesystem::path("/proc"), std::filesystem::path(folder.getPath())}) {
        std::filesystem::current_path(path); // no file can be made there; no room
        testing::internal::CaptureStdout();
        install(0.01).report();
        EXPECT_NE(testing::internal::GetCapturedStdout().find(
                      ".log\nWarning: the file of the event log could not be written\n"),
                  std::string::npos)
            << path;
    }
    std::filesystem::current_path(before);
}

TEST_F(TimeProfile, ShowsAsMuchOfALongNameAsFits) {
    TimeLoggerManager& manager = install(0.01);
    manager.switchOn();
    const std::string name = std::string(196, 'x') + "\u00e4\u00f6" + std::string(90, 'y');
    for (const char* cut : {"", "!"}) { // another text at the same address is another event
        const std::string method = cut + name;
        static std::string same;
        same = method;
        const EventTracker::Track track("", same);
        EventClock::pass(1.0);
    }
    const std::string text = report(manager, "1");
    EXPECT_NE(text.find("\n| " + (" / " + name).substr(0, 199) + "  |               1 |"), std::string::npos);
    EXPECT_NE(text.find("\n| " + (" / !" + name).substr(0, 200) + " |               1 |"), std::string::npos);
    EXPECT_EQ(text.substr(0, 277), rule('=', 274));
}

} // namespace
