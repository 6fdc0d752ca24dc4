#include "harness/MachineBench.h"

#include "machine/Communicator.h"
#include "machine/MemoryLoggerManager.h"
#include "machine/MpiStatisticsManager.h"
#include "machine/SystemMonitor.h"
#include "machine/TimeLoggerManager.h"

#include "kernel/EventTracker.h"
#include "kernel/Subject.h"
#include "platform/FileSystem.h"
#include "platform/Memory.h"
#include "platform/Process.h"
#include "platform/Time.h"

#include <fcntl.h>
#include <unistd.h>

#include <array>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <iostream>
#include <memory>
#include <string>
#include <thread>
#include <vector>

// The cost of the instruments: events, statistics of messages, samples of memory, and the report of 1,000
// events.

namespace {

constexpr std::size_t EVENTS = 1000;

/// Nothing is printed while it lives.
class Silence {
public:
    Silence() : _before(std::cout.rdbuf(nullptr)) {}
    ~Silence() { std::cout.rdbuf(_before); }
    Silence(const Silence&) = delete;
    Silence& operator=(const Silence&) = delete;

private:
    std::streambuf* _before;
};

/// The readings of the clocks that one event with the time profile must make: two of each.
void readClocks(int iterations) {
    Platform::ProcessorStamp stamp;
    double sum = 0.0;
    for (int i = 0; i < iterations; ++i) {
        sum += std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch()).count();
        Platform::time().stampProcessorTime(stamp);
        sum += Platform::time().getElapsedProcessorTime(stamp);
        sum += std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch()).count();
    }
    const volatile double kept = sum;
    static_cast<void>(kept);
}

void trackEvents(int iterations) {
    for (int i = 0; i < iterations; ++i)
        const EventTracker::Track track("InstrumentBench", "event");
}

class InstrumentBench {
public:
    InstrumentBench(const MpiBench& bench, BenchHarness& harness)
        : _harness(harness), _monitorTime(bench.getRounds() < 10 ? 0.2 : 10.0) {
        if (_comm.myRank() == 0) // the reports
            std::filesystem::current_path(
                _folder = Platform::filesystem().makeTemporaryDirectory(
                    Platform::filesystem().getDefaultTemporaryDirectory(), L"orvex-bench-"));
        _profile.switchOn();
        for (std::size_t i = 0; i < EVENTS; ++i) {
            const std::string name = "Solver part " + std::to_string(i);
            _profile.startEventLog(name, "iterate the equations");
            _profile.stopEventLog(name, "iterate the equations");
        }
        _profile.switchOff();
    }
    ~InstrumentBench() {
        ::close(_statm);
        if (!_folder.empty())
            Platform::filesystem().deleteTree(_folder);
        EventTracker::reset();
    }

    void addAll() {
        addEvents();
        addStatistics();
        addMemory();
        addReport();
        tellMonitor();
    }

private:
    void addEvents() {
        _harness.addReference("an event", "clock readings", readClocks);
        _harness.addCase("tracking off", trackEvents);
        EventTracker::getSingleton().setEventLoggerManager(new TimeLoggerManager);
        _harness.addCase("time profile on", [](int n) {
            EventTracker::getSingleton().getEventLoggerManager().switchOn();
            trackEvents(n);
            EventTracker::getSingleton().getEventLoggerManager().switchOff();
        });
    }

    void addStatistics() {
        _harness.addReference("ping-pong 8 B", "statistics off", [this](int n) { pingPong(n); });
        _harness.addCase("statistics on", [this](int n) {
            MpiStatisticsManager::enable(false);
            pingPong(n);
            MpiStatisticsManager::disable(false);
        });
    }

    void pingPong(int iterations) {
        const unsigned me = _comm.myRank();
        if (me > 1)
            return;
        for (int i = 0; i < iterations; ++i) {
            if (me == 0)
                _comm.send(_buffer.data(), _buffer.size(), 1);
            _comm.recv(_buffer.data(), _buffer.size(), 1 - me);
            if (me == 1)
                _comm.send(_buffer.data(), _buffer.size(), 0);
        }
    }

    void addMemory() {
        _harness.addReference("a sample of memory", "pread of statm", [this](int n) {
            std::array<char, 256> text{};
            for (int i = 0; i < n; ++i)
                if (::pread(_statm, text.data(), text.size(), 0) <= 0)
                    std::abort();
        });
        _harness.addCase("its sizes alone", [this](int n) {
            Platform::MemoryUse use;
            for (int i = 0; i < n; ++i)
                _query->querySizes(use);
        });
        _harness.addCase("with high-water marks", [this](int n) {
            Platform::MemoryUse use;
            for (int i = 0; i < n; ++i)
                _query->query(use);
        });
    }

    /// The processor time of a process that only sleeps, with the monitor less without it.
    void tellMonitor() {
        const auto measure = [this] {
            const std::clock_t begin = std::clock();
            std::this_thread::sleep_for(std::chrono::duration<double>(_monitorTime));
            return static_cast<double>(std::clock() - begin) / CLOCKS_PER_SEC;
        };
        _comm.synchronise();
        const double without = measure();
        Subject onExit;
        SystemMonitor monitor(onExit);
        monitor.start();
        const double with = measure();
        if (_comm.myRank() == 0)
            std::printf("The system monitor takes %.3f %% of a core at 50 samples a second\n",
                        100.0 * (with - without) / _monitorTime);
    }

    /// The events of the ranks as they travel, event by event and then the rows of each rank.
    void gatherRaw(int iterations) {
        for (int i = 0; i < iterations; ++i)
            gatherRaw();
    }
    void gatherRaw() {
        const std::string names(EVENTS * 42, 'x');
        const std::vector<double> times(EVENTS, 1.0);
        const std::vector<unsigned> counters(EVENTS, 1);
        std::vector<double> allTimes;
        std::vector<unsigned> allCounters;
        for (std::size_t event = 0; event < EVENTS; ++event) {
            _comm.gather(times[event], allTimes, 0);
            _comm.gather(counters[event], allCounters, 0);
        }
        for (unsigned rank = 1; rank < _comm.size(); ++rank) {
            if (_comm.myRank() == rank) {
                _comm.send(times, 0);
                _comm.send(counters, 0);
                _comm.send(names, 0);
            } else if (_comm.myRank() == 0) {
                std::string text;
                _comm.recv(allTimes, rank);
                _comm.recv(allCounters, rank);
                _comm.recv(text, rank);
            }
        }
    }

    void addReport() {
        _harness.addReference("a report of 1,000 events", "gathered raw", [this](int n) { gatherRaw(n); });
        _harness.addCase("written", [this](int n) {
            const Silence silence;
            for (int i = 0; i < n; ++i)
                _profile.report();
        });
    }

    BenchHarness& _harness;
    double _monitorTime;  ///< [s]
    std::wstring _folder; ///< of the reports, on their writer
    Communicator _comm;
    std::array<char, 8> _buffer{};
    TimeLoggerManager _profile{-1.0}; ///< all events are reported
    std::unique_ptr<Platform::MemoryQuery> _query =
        Platform::memory().createQuery(Platform::process().getPid());
    int _statm = ::open("/proc/self/statm", O_RDONLY | O_CLOEXEC);
};

} // namespace

int main(int argc, char** argv) {
    return runMachineBench<InstrumentBench>("InstrumentBench", argc, argv);
}
