#include "machine/MpiStatisticsManager.h"

#include "machine/MachineGround.h"
#include "machine/messages/CommunicatorStatistics.h"
#include "machine/reports/MpiStatisticsReport.h"

#include "kernel/Controller.h"
#include "kernel/Raise.h"
#include "kernel/Subject.h"
#include "platform/Process.h"
#include "platform/Thread.h"
#include "platform/TickClock.h"

#include <algorithm>
#include <iostream>
#include <utility>

namespace {

using Manager = MpiStatisticsManager;

/// Tells the manager of the moment about the operations of communicators.
class Recorder : public CommunicatorStatistics {
public:
    void* open(Kind kind, const char* name, unsigned bytes) override {
        if (kind == GLOBAL)
            return Manager::openGlobalEvent(name, bytes);
        return Manager::openPt2PtEvent(name, bytes);
    }
    void close(Kind kind, void* event, unsigned partner) noexcept override {
        if (kind == GLOBAL)
            static_cast<Manager::GlobalMpiEvent*>(event)->close();
        else
            static_cast<Manager::Pt2PtMpiEvent*>(event)->close(partner);
    }
};

constinit Recorder recorder;

std::size_t findClass(unsigned bytes) {
    std::size_t found = Manager::NUMBER_CLASSES - 1;
    while (bytes < Manager::LOWER_BOUNDS[found])
        --found;
    return found;
}

template <class Events>
MpiStatisticsReport::Events copyNumbers(const Events& events) {
    MpiStatisticsReport::Events copies;
    for (const auto& [name, event] : events) {
        const Manager::Times times = event->getTimes();
        copies[name] = {{event->getCounts().begin(), event->getCounts().end()}, {times.begin(), times.end()}};
    }
    return copies;
}

/// A report doesn't count its own messages.
class Pause {
public:
    Pause() { Manager::disable(false); }
    ~Pause() { Manager::enable(false); }
    Pause(const Pause&) = delete;
    Pause& operator=(const Pause&) = delete;
};

} // namespace

// ---- The clock.

std::uint64_t (*MpiStatisticsManager::_clock)() = nullptr;

inline std::uint64_t MpiStatisticsManager::readClock() {
    return _clock ? _clock() : Platform::TickClock::read();
}

double MpiStatisticsManager::toSeconds(std::uint64_t ticks) {
    return _clock ? static_cast<double>(ticks) * 1e-9 : Platform::TickClock::toSeconds(ticks);
}

// ---- Events.

MpiStatisticsManager::MpiEvent::MpiEvent() = default;
MpiStatisticsManager::MpiEvent::~MpiEvent() = default;

void MpiStatisticsManager::MpiEvent::begin(unsigned bytes) {
    _isOpen = true;
    _currentClass = findClass(bytes);
    ++_counts[_currentClass];
    _openedAt = readClock();
}

void MpiStatisticsManager::MpiEvent::end() {
    if (!_isOpen) // a signal closed it
        return;
    _ticks[_currentClass] += readClock() - _openedAt;
    _isOpen = false;
}

MpiStatisticsManager::Times MpiStatisticsManager::MpiEvent::getTimes() const {
    Times times;
    std::ranges::transform(_ticks, times.begin(), toSeconds);
    return times;
}

MpiStatisticsManager::Pt2PtMpiEvent::Pt2PtMpiEvent() : _partnerCounts(MachineGround::nProcesses()) {}

void MpiStatisticsManager::Pt2PtMpiEvent::close(unsigned partner) {
    if (!isOpen())
        return;
    ORVEX_ASSERT_AS(partner < _partnerCounts.size(), "partner < _partnerCounts.size()",
                    "invalid vector<T> subscript");
    ++_partnerCounts[partner];
    end();
}

// ---- The manager.

MpiStatisticsManager* MpiStatisticsManager::_singleton = nullptr;

MpiStatisticsManager::MpiStatisticsManager() : _signalObserver(*this) {
    ORVEX_ASSERT(!_singleton, "Singleton already exists");
    Controller::getSingleton().getSignalRaisedObservable().attach(_signalObserver);
}

MpiStatisticsManager::~MpiStatisticsManager() {
    Controller::getSingleton().getSignalRaisedObservable().detach(_signalObserver);
}

MpiStatisticsManager& MpiStatisticsManager::getSingleton() {
    if (!_singleton)
        _singleton = new MpiStatisticsManager;
    return *_singleton;
}

void MpiStatisticsManager::destroySingleton() {
    delete std::exchange(_singleton, nullptr);
}

bool MpiStatisticsManager::isEnabled() {
    return CommunicatorStatistics::getInstalled() == &recorder;
}

void MpiStatisticsManager::enable(bool verbose) {
    CommunicatorStatistics::install(&recorder);
    if (verbose)
        std::cout << "Enabling MPI statistics collection" << std::endl;
}

void MpiStatisticsManager::disable(bool verbose) {
    if (isEnabled())
        CommunicatorStatistics::install(nullptr);
    if (verbose)
        std::cout << "Disabling MPI statistics collection" << std::endl;
}

template <class Event>
Event& MpiStatisticsManager::Table<Event>::find(const char* name) {
    constexpr std::uint64_t SPREAD = 0x9E3779B97F4A7C15u; // 2^64 / golden ratio: the high bits are well mixed
    Slot& slot = recent[(reinterpret_cast<std::uintptr_t>(name) * SPREAD) >> 56];
    if (slot.name != name) {
        std::unique_ptr<Event>& event = events[name];
        if (!event)
            event = std::make_unique<Event>();
        slot = {name, event.get()};
    }
    return *slot.event;
}

MpiStatisticsManager::GlobalMpiEvent* MpiStatisticsManager::openGlobalEvent(const char* name,
                                                                            unsigned bytes) {
    if (!isEnabled())
        return nullptr;
    GlobalMpiEvent& event = getSingleton()._global.find(name);
    event.begin(bytes);
    return &event;
}

MpiStatisticsManager::Pt2PtMpiEvent* MpiStatisticsManager::openPt2PtEvent(const char* name, unsigned bytes) {
    if (!isEnabled())
        return nullptr;
    Pt2PtMpiEvent& event = getSingleton()._pt2pt.find(name);
    event.begin(bytes);
    return &event;
}

void MpiStatisticsManager::SignalRaisedObserver::update(Properties&) {
    if (!Thread::isMain()) // the fault of another thread interrupts no message
        return;
    for (const auto& [name, event] : _manager->_global.events)
        event->close();
    for (const auto& [name, event] : _manager->_pt2pt.events)
        event->close(0);
}

bool MpiStatisticsManager::report(const std::string& baseName) {
    if (!isEnabled() || MachineGround::isSerial())
        return true;
    const Pause pause;
    const std::string path = baseName + "-" + std::to_string(Platform::process().getPid()) + ".log";
    std::cout << "MPI Statistics Log : " << path << std::endl;
    MpiStatisticsReport report(MachineGround::globalCommunicator(), path, LOWER_BOUNDS);
    report.write("#Global Event : ", copyNumbers(getGlobalEvents()));
    report.write("#Pt2Pt Event : ", copyNumbers(getPt2PtEvents()));
    const bool isWritten = report.close();
    if (!isWritten)
        std::cout << "Warning: The MPI statistics can't be written to " << path << std::endl;
    return isWritten;
}

void MpiStatisticsManager::reportAtEnd() {
    if (isEnabled())
        getSingleton().report(BASE_NAME);
    destroySingleton();
}
