#include "machine/TimeLoggerManager.h"

#include "machine/Communicator.h"
#include "machine/MachineGround.h"
#include "machine/OutputFileStream.h"
#include "machine/reports/CallPaths.h"
#include "machine/reports/ProfiledEvent.h"

#include "kernel/Server.h"
#include "platform/StringHelper.h"

#include <algorithm>
#include <map>
#include <vector>

namespace {

constexpr int COLUMN_WIDTH = 18;
constexpr int PROCESS_COLUMNS = 4;
constexpr int EVENT_COLUMNS = 6;
constexpr const char* CELL_END = " |";

double toPercent(double part, double total) {
    return total > 0.0 ? part * 100.0 / total : 0.0;
}

} // namespace

// ---- An event.

TimeLoggerManager::TimerEventLogger::TimerEventLogger(const std::string& first, const std::string& second,
                                                      const Timer& timer, std::shared_ptr<CallPaths> paths)
    : EventLogger(first, second), _timer(timer), _paths(std::move(paths)) {
    if (!_paths)
        return;
    const std::string name = second.empty() ? first : first + "::" + second;
    _pathEvent = _paths->addEvent(name);
    _profiled = std::make_shared<const ProfiledEvent>(name);
}

TimeLoggerManager::TimerEventLogger::~TimerEventLogger() {
    if (isOpen())
        EventLogger::stop();
}

void TimeLoggerManager::TimerEventLogger::onStart() {
    if (!_timer.running())
        _timer.start();
    if (!_paths)
        return;
    _profiled->start(getNumberOpen() == 0);
    if (getNumberOpen() == 0)
        _paths->start(_pathEvent);
    else
        _paths->startAgain(_pathEvent);
}

void TimeLoggerManager::TimerEventLogger::onStop() {
    if (getNumberOpen() != 1)
        return;
    if (_paths) {
        _paths->stop(_pathEvent);
        _profiled->stop();
    }
    _timer.stop();
}

// ---- Measuring.

TimeLoggerManager::TimeLoggerManager() : TimeLoggerManager(DEFAULT_THRESHOLD) {}

TimeLoggerManager::TimeLoggerManager(double threshold, TimerFactory makeTimer)
    : _makeTimer(makeTimer ? std::move(makeTimer) : [] { return Timer(); }), _timer(_makeTimer()),
      _paths(std::make_shared<CallPaths>(_makeTimer())), _threshold(threshold),
      _sessionName(StringHelper::toWString(Server::getSingleton().getSessionName())) {}

TimeLoggerManager::~TimeLoggerManager() = default;

void TimeLoggerManager::switchOn() {
    if (!_timer.running()) // a running timer would lose the interval so far
        _timer.start();
    EventLoggerManager::switchOn();
}

void TimeLoggerManager::switchOff() {
    _timer.stop();
    EventLoggerManager::switchOff();
}

TimeLoggerManager::TimerEventLogger* TimeLoggerManager::getTimerEventLogger(const std::string& first,
                                                                            const std::string& second) const {
    return static_cast<TimerEventLogger*>(getEventLogger(first, second));
}

EventLoggerManager::EventLogger* TimeLoggerManager::createEventLogger(const std::string& first,
                                                                      const std::string& second) {
    if (TimerEventLogger* known = getTimerEventLogger(first, second))
        return known;
    return addEventLogger(std::make_unique<TimerEventLogger>(first, second, _makeTimer(), _paths));
}

// ---- The report.

/// An event as it is at the report: all tables show the same reading of an open event.
struct TimeLoggerManager::Event {
    const EventLogger* logger;
    double wallTime;
    double cpuTime;
};

struct TimeLoggerManager::Profile {
    std::vector<Event> events;     ///< in key order
    std::vector<Event> byWallTime; ///< largest first, equal times in key order
    double localTotal;
    double commonTotal; ///< the smallest of all ranks
};

TimeLoggerManager::Profile TimeLoggerManager::readProfile() const {
    Profile profile;
    for (const auto& [key, logger] : getEventLoggers()) {
        const auto& event = static_cast<const TimerEventLogger&>(*logger);
        profile.events.push_back({&event, event.getWallTime(), event.getCpuTime()});
    }
    profile.byWallTime = profile.events;
    std::stable_sort(profile.byWallTime.begin(), profile.byWallTime.end(),
                     [](const Event& a, const Event& b) { return a.wallTime > b.wallTime; });
    profile.localTotal = _timer.getWallTime(); // after the events, so that none exceeds it
    profile.commonTotal = profile.localTotal;
    if (MachineGround::isParallel())
        MachineGround::globalCommunicator().allReduce(profile.commonTotal, Communicator::MIN);
    return profile;
}

bool TimeLoggerManager::exceedsThreshold(double time, double total) const {
    // A division by zero would be a floating-point fault of the job.
    return total > 0.0 ? time / total > _threshold : time > 0.0;
}

void TimeLoggerManager::report() {
    shareEvents(*this);
    const Profile profile = readProfile();
    OutputFileStream out;
    openReport(out, "Event Log : ", L"orvexsim+-timed-events-", "Time Profile Output for : ", _sessionName);
    out << "Events that use less than " << _threshold * 100.0
        << "% of total sampled time will not be reported.\n";
    std::size_t longest = 0;
    for (const Event& event : profile.events) {
        if (exceedsThreshold(event.wallTime, profile.commonTotal))
            longest = std::max(longest, event.logger->getKey().size());
    }
    const int nameWidth = getNameWidth(longest);
    reportProcesses(out, profile, nameWidth);
    if (MachineGround::isParallel())
        reportEvents(out, profile, nameWidth);
    closeReport(out);
}

void TimeLoggerManager::reportProcesses(OStreamWrapper& out, const Profile& profile, int nameWidth) const {
    std::vector<double> totals{profile.localTotal};
    if (MachineGround::isParallel())
        MachineGround::globalCommunicator().gather(profile.localTotal, totals, Communicator::_master);
    Rows own(2);
    for (const Event& event : profile.byWallTime) {
        if (exceedsThreshold(event.wallTime, profile.commonTotal))
            own.add({event.cpuTime, event.wallTime}, event.logger->getEventCounter(), event.logger->getKey());
    }
    forEachRank(own, [&](unsigned rank, const Rows& rows) {
        printProcessTableHead(out, nameWidth, COLUMN_WIDTH, PROCESS_COLUMNS, static_cast<int>(rank));
        for (std::size_t row = 0; row < rows.size(); ++row)
            printProcessTableData(out, nameWidth, COLUMN_WIDTH, rows.getName(row), rows.columns[1][row],
                                  rows.columns[0][row], totals[rank], rows.counters[row]);
        lightRule(out, nameWidth + 70);
    });
}

void TimeLoggerManager::reportEvents(OStreamWrapper& out, const Profile& profile, int nameWidth) const {
    struct Row {
        std::string name;
        RankedValue maximum, minimum;
        double stddev;
    };
    // By the second name; in a group in key order.
    std::vector<const Event*> events;
    for (const Event& event : profile.events)
        events.push_back(&event);
    std::ranges::stable_sort(events, {}, [](const Event* event) { return event->logger->getSecondName(); });
    std::vector<std::vector<double>> columns(2);
    for (const Event* event : events) {
        columns[0].push_back(event->wallTime);
        columns[1].push_back(event->logger->getEventCounter());
    }
    std::multimap<double, Row> rows; // by the mean
    forEachRow(columns, [&](std::size_t i, const std::vector<std::vector<double>>& ofRanks) {
        const std::vector<double>& times = ofRanks[0];
        const std::vector<double>& counters = ofRanks[1];
        const RankedValue maximum = getMaximum(times);
        if (std::ranges::any_of(counters, [](double counter) { return counter > 0.0; }) &&
            exceedsThreshold(maximum.first, profile.localTotal))
            rows.insert({getMean(times),
                         {events[i]->logger->getFirstName() + "::" + events[i]->logger->getSecondName(),
                          maximum, getMinimum(times), getStandardDeviation(times)}});
    });
    printEventTableHead(out, nameWidth, COLUMN_WIDTH, EVENT_COLUMNS);
    for (auto row = rows.rbegin(); row != rows.rend(); ++row)
        printEventTableData(out, nameWidth, COLUMN_WIDTH, row->second.name, row->second.maximum,
                            row->second.minimum, row->first, row->second.stddev, profile.localTotal);
    lightRule(out, nameWidth + 88);
}

// ---- Its tables: W is the width of the column of names, C that of a column of numbers.

void TimeLoggerManager::printProcessTableHead(OStreamWrapper& out, int W, int C, int nCols, int rank) {
    std::string titles;
    for (const char* title : {"Event Counter", "Elapsed Time (s)", "CPU Time (s)", "% Elapsed Time"})
        titles += alignLeft(title, C - 2) + CELL_END;
    printRankHead(out, W, C * nCols + W - 2, rank, titles);
}

void TimeLoggerManager::printProcessTableData(OStreamWrapper& out, int W, int C, const std::string& name,
                                              double wall, double cpu, double total, std::uint32_t counter) {
    std::string line = alignLeft("| " + cutName(name, W - 4), W - 2) + CELL_END;
    line += alignRight(std::to_string(counter), C - 2) + CELL_END;
    for (const double value : {wall, cpu, toPercent(wall, total)})
        line += alignRight(toText(value, 4), C - 2) + CELL_END;
    out << line + '\n';
}

void TimeLoggerManager::printEventTableHead(OStreamWrapper& out, int W, int C, int nCols) {
    std::string line = alignLeft("| Event Logged", W - 2) + CELL_END;
    for (const char* title : {"Max (value/rank)", "Min (value/rank)", "Average", "stddev", "% total"})
        line += alignRight(title, C - 2) + CELL_END;
    heavyRule(out, C * (nCols - 1) + W - 2);
    out << line + '\n';
    lightRule(out, C * (nCols - 1) + W - 2);
}

void TimeLoggerManager::printEventTableData(OStreamWrapper& out, int W, int C, const std::string& name,
                                            const RankedValue& maximum, const RankedValue& minimum,
                                            double average, double stddev, double total) {
    std::string line = "| " + alignLeft(cutName(name, W - 4), W - 4) + CELL_END;
    for (const RankedValue& value : {maximum, minimum})
        line += alignRight(getValueRankText(value), C - 2) + CELL_END;
    for (const double value : {average, stddev, toPercent(average, total)})
        line += alignRight(toText(value, 4), C - 2) + CELL_END;
    out << line + '\n';
}
