#include "machine/MemoryLoggerManager.h"

#include "kernel/MessagingGate.h"

#include "unit/machine/MachineTestAccess.h"
#include "unit/machine/reports/EventReports.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <string>

namespace {

TEST(MemoryProfile, ShowsWhatEventsAddAndFree) {
    MessagingGate::noteMainThread();
    MachineTestAccess::startAfresh();
    long long resident = 100 << 20;
    long long highWater = 200 << 20;
    MemoryLoggerManager manager(0.5, [&](Platform::MemoryUse& use) {
        use.residentSize = resident;
        use.residentHighWater = highWater;
    });
    const auto add = [&](long long bytes) {
        resident += bytes;
        highWater = std::max(highWater, resident);
    };
    manager.switchOn();
    const auto event = [&](const char* first, const char* second, auto work) {
        manager.startEventLog(first, second);
        work();
        manager.stopEventLog(first, second);
    };
    event("Frees", "some", [&] { add(-(5 << 20)); });
    event("Adds", "much", [&] { add(155 << 20); });
    event("At", "limit", [&] { add(1 << 19); });
    event("Nested", "twice", [&] {
        add(7 << 20); // before the inner start: doesn't count
        event("Nested", "twice", [&] { add(3 << 19); });
        add(1 << 20);
    });
    manager.startEventLog("Open", "event");
    add(9 << 20);

    testing::internal::CaptureStdout();
    manager.report();
    const std::string line = testing::internal::GetCapturedStdout();
    ASSERT_EQ(line.rfind("Memory Log : /", 0), 0u) << line;
    const std::string path = line.substr(13, line.size() - 14);
    EXPECT_EQ(
        readReport(path),
        headOfReport("Memory Profile Output for : ", 1,
                     "Events that add less than 0.5 (MB) of added Resident or added High-Water Resident "
                     "memory will not be reported.") +
            '|' + std::string(117, '=') +
            "|\n|                |Event Counter |HWM Resident Memory (MB) |Added Resident Memory (MB) "
            "|Added HWM Resident Memory (MB) |\n|" +
            std::string(117, '-') +
            "|\n"
            "| Adds / much    |            1 |                     269 |                       155 |"
            "                            50 |\n"
            "| Nested / twice |            2 |                     269 |                         2 |"
            "                             2 |\n"
            "| Frees / some   |            1 |                     269 |                        -5 |"
            "                             0 |\n|" +
            std::string(117, '-') + "|\n");
    std::remove(path.c_str());
}

} // namespace
