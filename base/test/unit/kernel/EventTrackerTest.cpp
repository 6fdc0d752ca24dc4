#include "kernel/EventTracker.h"

#include "kernel/EventLoggerManager.h"
#include "kernel/MessagingGate.h"
#include "kernel/Raise.h"

#include <gtest/gtest.h>

#include <thread>

namespace {

using EventLogger = EventLoggerManager::EventLogger;

/// Notes what the hooks see.
struct NotingLogger : EventLogger {
    NotingLogger(const std::string& first, const std::string& second, std::string& notes)
        : EventLogger(first, second), log(notes) {}
    ~NotingLogger() override { log += "~" + getFirstName(); }
    void onStart() override { log += "+" + std::to_string(getNumberOpen()); }
    void onStop() override { log += "-" + std::to_string(getNumberOpen()); }
    std::string& log;
};

struct NotingManager : EventLoggerManager {
    explicit NotingManager(std::string& notes) : log(notes) {}
    using EventLoggerManager::operator=;
    EventLogger* createEventLogger(const std::string& first, const std::string& second) override {
        if (EventLogger* known = getEventLogger(first, second))
            return known;
        return addEventLogger(std::make_unique<NotingLogger>(first, second, log));
    }
    std::string& log;
};

class EventTrackerTest : public testing::Test {
protected:
    EventTrackerTest() { MessagingGate::noteMainThread(); }
    ~EventTrackerTest() override { EventTracker::reset(); }

    static EventLoggerManager& manager() { return EventTracker::getSingleton().getEventLoggerManager(); }
    static const EventLogger* find(const std::string& first, const std::string& second) {
        const auto entry = manager().getEventLoggers().find(first + EventLoggerManager::FIELD_TAG + second);
        return entry == manager().getEventLoggers().end() ? nullptr : entry->second.get();
    }
};

} // namespace

TEST_F(EventTrackerTest, CountsWhileItIsOn) {
    { const EventTracker::Track track("Class", "off"); }
    EXPECT_TRUE(manager().getEventLoggers().empty());
    manager().switchOn();
    {
        const EventTracker::Track outer("Class", "method");
        const std::string method = "method";
        const EventTracker::Track inner("Class", method);
        EXPECT_EQ(find("Class", "method")->getNumberOpen(), 2u);
    }
    manager().startEventLog("Single");
    manager().stopEventLog("Single");
    manager().stopEventLog("Single"); // was closed already
    manager().stopEventLog("never", "started");
    EXPECT_EQ(find("Class", "method")->getEventCounter(), 2u);
    EXPECT_EQ(find("Single", "")->getEventCounter(), 1u);
    std::thread([] { const EventTracker::Track track("Other", "thread"); }).join();
    EXPECT_EQ(find("Other", "thread"), nullptr);
    {
        const EventTracker::Track track("Class", "across");
        manager().switchOff();
    }
    EXPECT_FALSE(find("Class", "across")->isOpen()); // closed although it is off by now
    { const EventTracker::Track track("Class", "across"); }
    EXPECT_EQ(find("Class", "across")->getEventCounter(), 1u);
}

TEST_F(EventTrackerTest, AnotherManagerTakesOverInTheMidstOfEvents) {
    std::string log;
    manager().switchOn();
    { const EventTracker::Track closed("Closed", "before"); }
    {
        const EventTracker::Track outer("Open", "event");
        const EventTracker::Track inner("Open", "event");
        auto* noting = new NotingManager(log);
        *noting = manager();
        EventTracker::getSingleton().setEventLoggerManager(noting);
        EXPECT_TRUE(noting->isOn());
        EXPECT_EQ(noting->getEventLoggers().size(), 1u);
        const EventTracker::Track again("Open", "event");
        EXPECT_EQ(log, "+0+1+2");
    }
    EXPECT_EQ(log, "+0+1+2-3-2-1");
    EXPECT_EQ(find("Open", "event")->getEventCounter(), 3u);
    const EventTracker::Track outliving("Open", "event");
    EventTracker::reset();
    EXPECT_EQ(log, "+0+1+2-3-2-1+0~Open");
}
