#include "machine/MemoryLoggerManager.h"

#include "machine/Communicator.h"
#include "machine/MachineGround.h"
#include "machine/OutputFileStream.h"

#include "kernel/Server.h"
#include "platform/Process.h"
#include "platform/StringHelper.h"

#include <algorithm>
#include <cmath>
#include <map>
#include <memory>
#include <numeric>
#include <vector>

namespace {

constexpr int PROCESS_COLUMN_WIDTH = 32;
constexpr int PROCESS_COLUMNS = 4;
constexpr int EVENT_COLUMN_WIDTH = 26;
constexpr int EVENT_COLUMNS = 7;
constexpr const char* CELL_END = " |";
constexpr double MB = 1048576.0;

void querySystem(Platform::MemoryUse& use) {
    static const std::unique_ptr<Platform::MemoryQuery> query =
        Platform::memory().createQuery(Platform::process().getPid());
    query->query(use);
}

/// Without the part behind the decimal point.
std::string toInteger(double value) {
    return std::to_string(static_cast<long long>(value));
}

std::pair<long long, unsigned> truncate(const EventLoggerReporter::RankedValue& value) {
    return {static_cast<long long>(value.first), value.second};
}

using MemoryEvent = MemoryLoggerManager::MemoryMonitorEventLogger;

const MemoryEvent& asEvent(const std::unique_ptr<EventLoggerManager::EventLogger>& logger) {
    return static_cast<const MemoryEvent&>(*logger);
}

} // namespace

// ---- An event.

MemoryLoggerManager::MemoryMonitorEventLogger::MemoryMonitorEventLogger(const std::string& first,
                                                                        const std::string& second,
                                                                        MemorySource source)
    : EventLogger(first, second), _source(std::move(source)) {}

MemoryLoggerManager::MemoryMonitorEventLogger::~MemoryMonitorEventLogger() {
    if (isOpen())
        EventLogger::stop();
}

void MemoryLoggerManager::MemoryMonitorEventLogger::onStart() {
    _source(_atStart);
}

void MemoryLoggerManager::MemoryMonitorEventLogger::onStop() {
    if (getNumberOpen() != 1)
        return;
    Platform::MemoryUse now = _atStart;
    _source(now);
    _addedResident += now.residentSize - _atStart.residentSize;
    _addedHighWater += now.residentHighWater - _atStart.residentHighWater;
}

double MemoryLoggerManager::MemoryMonitorEventLogger::getAddedResident() const {
    return static_cast<double>(_addedResident) / MB;
}

double MemoryLoggerManager::MemoryMonitorEventLogger::getAddedHighWater() const {
    return static_cast<double>(_addedHighWater) / MB;
}

// ---- Measuring.

MemoryLoggerManager::MemoryLoggerManager() : MemoryLoggerManager(DEFAULT_THRESHOLD) {}

MemoryLoggerManager::MemoryLoggerManager(double threshold, MemorySource source)
    : _source(source ? std::move(source) : querySystem), _threshold(threshold),
      _sessionName(StringHelper::toWString(Server::getSingleton().getSessionName())) {}

MemoryLoggerManager::~MemoryLoggerManager() = default;

MemoryLoggerManager::MemoryMonitorEventLogger*
MemoryLoggerManager::getMemoryMonitorEventLogger(const std::string& first, const std::string& second) const {
    return static_cast<MemoryMonitorEventLogger*>(getEventLogger(first, second));
}

EventLoggerManager::EventLogger* MemoryLoggerManager::createEventLogger(const std::string& first,
                                                                        const std::string& second) {
    if (MemoryMonitorEventLogger* known = getMemoryMonitorEventLogger(first, second))
        return known;
    return addEventLogger(std::make_unique<MemoryMonitorEventLogger>(first, second, _source));
}

// ---- The report.

bool MemoryLoggerManager::exceedsThreshold(double addedResident, double addedHighWater) const {
    return std::abs(addedResident) > _threshold || addedHighWater > _threshold;
}

double MemoryLoggerManager::getHighWater() const {
    Platform::MemoryUse use;
    _source(use);
    return static_cast<double>(use.residentHighWater) / MB;
}

void MemoryLoggerManager::report() {
    shareEvents(*this);
    OutputFileStream out;
    openReport(out, "Memory Log : ", L"orvexsim+-memory-events-",
               "Memory Profile Output for : ", _sessionName);
    out << "Events that add less than " << _threshold
        << " (MB) of added Resident or added High-Water Resident memory will not be reported.\n";
    std::size_t longest = 0;
    for (const auto& [key, logger] : getEventLoggers()) {
        if (exceedsThreshold(asEvent(logger).getAddedResident(), asEvent(logger).getAddedHighWater()))
            longest = std::max(longest, key.size());
    }
    if (MachineGround::isSerial()) {
        reportProcesses(out, getNameWidth(longest));
    } else {
        // The table over the ranks may show an event that adds little on each.
        std::vector<double> added;
        for (const auto& [key, logger] : getEventLoggers()) {
            added.push_back(asEvent(logger).getAddedResident());
            added.push_back(asEvent(logger).getAddedHighWater());
        }
        MachineGround::globalCommunicator().allReduce(added.data(), added.size(), Communicator::SUM);
        auto sum = added.cbegin();
        for (const auto& [key, logger] : getEventLoggers()) {
            if (exceedsThreshold(sum[0], sum[1]))
                longest = std::max(longest, key.size());
            sum += 2;
        }
        const int nameWidth = getNameWidth(longest);
        reportProcesses(out, nameWidth);
        reportEvents(out, nameWidth);
    }
    closeReport(out);
}

void MemoryLoggerManager::reportProcesses(OStreamWrapper& out, int nameWidth) const {
    std::vector<const MemoryEvent*> events;
    for (const auto& [key, logger] : getEventLoggers()) {
        if (exceedsThreshold(asEvent(logger).getAddedResident(), asEvent(logger).getAddedHighWater()))
            events.push_back(&asEvent(logger));
    }
    const auto largest = [](const MemoryEvent* event) {
        return std::pair(-event->getAddedHighWater(), -event->getAddedResident());
    };
    std::stable_sort(events.begin(), events.end(),
                     [&](const MemoryEvent* a, const MemoryEvent* b) { return largest(a) < largest(b); });
    const double highWater = getHighWater();
    Rows own(3);
    for (const MemoryEvent* event : events)
        own.add({highWater, event->getAddedResident(), event->getAddedHighWater()}, event->getEventCounter(),
                event->getKey());
    forEachRank(own, [&](unsigned rank, const Rows& rows) {
        printProcessTableHead(out, nameWidth, PROCESS_COLUMN_WIDTH, PROCESS_COLUMNS, static_cast<int>(rank));
        for (std::size_t row = 0; row < rows.size(); ++row)
            printProcessTableData(out, nameWidth, PROCESS_COLUMN_WIDTH, rows.getName(row),
                                  rows.columns[0][row], rows.columns[1][row], rows.columns[2][row],
                                  rows.counters[row]);
        lightRule(out, nameWidth + 99);
    });
}

void MemoryLoggerManager::reportEvents(OStreamWrapper& out, int nameWidth) const {
    struct Row {
        std::string name;
        double added;
    };
    // By the second name; in a group in key order.
    std::vector<const MemoryEvent*> events;
    for (const auto& [key, logger] : getEventLoggers())
        events.push_back(&asEvent(logger));
    std::ranges::stable_sort(events, {}, [](const MemoryEvent* event) { return event->getSecondName(); });
    std::vector<std::vector<double>> columns(3);
    for (const MemoryEvent* event : events) {
        columns[0].push_back(event->getAddedResident());
        columns[1].push_back(event->getAddedHighWater());
        columns[2].push_back(event->getEventCounter());
    }
    std::vector<double> highWaters;
    MachineGround::globalCommunicator().gather(getHighWater(), highWaters,
                                               Communicator::_master); // the same for all events of a process
    std::multimap<double, Row> rows;
    forEachRow(columns, [&](std::size_t i, const std::vector<std::vector<double>>& ofRanks) {
        const auto sum = [](const std::vector<double>& values) {
            return std::accumulate(values.begin(), values.end(), 0.0);
        };
        const double totalResident = sum(ofRanks[0]);
        const double totalAdded = sum(ofRanks[1]);
        if (sum(ofRanks[2]) > 0.0 && exceedsThreshold(totalResident, totalAdded))
            rows.insert(
                {totalAdded, {events[i]->getFirstName() + "::" + events[i]->getSecondName(), totalResident}});
    });
    printEventTableHead(out, nameWidth, EVENT_COLUMN_WIDTH, EVENT_COLUMNS);
    for (auto row = rows.rbegin(); row != rows.rend(); ++row)
        printEventTableData(out, nameWidth, EVENT_COLUMN_WIDTH, row->second.name,
                            truncate(getMaximum(highWaters)), truncate(getMinimum(highWaters)),
                            getMean(highWaters), getStandardDeviation(highWaters), row->second.added,
                            row->first);
    lightRule(out, nameWidth + 105);
}

// ---- Its tables: W is the width of the column of names, C that of the widest column of numbers.

void MemoryLoggerManager::printProcessTableHead(OStreamWrapper& out, int W, int C, int nCols, int rank) {
    const std::string titles = alignLeft("Event Counter", C - 19) + CELL_END +
                               alignLeft("HWM Resident Memory (MB)", C - 8) + CELL_END +
                               alignLeft("Added Resident Memory (MB)", C - 6) + CELL_END +
                               alignLeft("Added HWM Resident Memory (MB)", C - 2) + CELL_END;
    printRankHead(out, W, W + C * nCols - 29, rank, titles);
}

void MemoryLoggerManager::printProcessTableData(OStreamWrapper& out, int W, int C, const std::string& name,
                                                double hwm, double addedResident, double addedHwm,
                                                std::uint32_t counter) {
    out << alignLeft("| " + cutName(name, W - 4), W - 2) + CELL_END +
               alignRight(std::to_string(counter), C - 19) + CELL_END + alignRight(toInteger(hwm), C - 8) +
               CELL_END + alignRight(toInteger(addedResident), C - 6) + CELL_END +
               alignRight(toInteger(addedHwm), C - 2) + CELL_END + '\n';
}

void MemoryLoggerManager::printEventTableHead(OStreamWrapper& out, int W, int C, int nCols) {
    const int length = C * (nCols - 1) + W - 51;
    heavyRule(out, length);
    out << alignLeft("| Memory Logged", W - 2) + CELL_END + alignRight("Max (HWM / rank)", C - 10) +
               CELL_END + alignRight("Min (HWM / rank)", C - 10) + CELL_END + alignRight("Average", C - 17) +
               CELL_END + alignRight("Stddev", C - 17) + CELL_END +
               alignRight("Total added Res (MB)", C - 5) + CELL_END +
               alignRight("Total added HWM Res (MB)", C - 2) + CELL_END + '\n';
    lightRule(out, length);
}

void MemoryLoggerManager::printEventTableData(OStreamWrapper& out, int W, int C, const std::string& name,
                                              const std::pair<long long, unsigned>& maximum,
                                              const std::pair<long long, unsigned>& minimum, double average,
                                              double stddev, double totalAdded, double totalAddedHwm) {
    out << "| " + alignLeft(cutName(name, W - 4), W - 4) + CELL_END +
               alignRight(getValueRankText(maximum), C - 10) + CELL_END +
               alignRight(getValueRankText(minimum), C - 10) + CELL_END +
               alignRight(toInteger(average), C - 17) + CELL_END + alignRight(toText(stddev, 2), C - 17) +
               CELL_END + alignRight(toInteger(totalAdded), C - 5) + CELL_END +
               alignRight(toInteger(totalAddedHwm), C - 2) + CELL_END + '\n';
}
