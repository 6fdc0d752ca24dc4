#pragma once

#include "machine/EventLoggerReporter.h"
#include "machine/MachineExport.h"
#include "machine/Timer.h"

#include "kernel/EventLoggerManager.h"

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <utility>

class CallPaths;
class ProfiledEvent;

/// Measures how long events are open, in wall-clock and processor time, and writes a profile of all ranks.
///
/// The events are those of EventTracker, once this manager is installed there and switched on. Main thread.
class ORVEX_MACHINE_EXPORT TimeLoggerManager : public EventLoggerManager, public EventLoggerReporter {
public:
    /// Makes a stopped timer.
    using TimerFactory = std::function<Timer()>;
    static constexpr double DEFAULT_THRESHOLD = 0.01;

    /// The time of one event: from its outermost start to its outermost stop.
    class ORVEX_MACHINE_EXPORT TimerEventLogger : public EventLogger {
    public:
        /// @param paths  also told of each start and stop, as is the profile of this rank, unless null
        TimerEventLogger(const std::string& first, const std::string& second, const Timer& timer,
                         std::shared_ptr<CallPaths> paths = nullptr);
        ~TimerEventLogger() override;
        /// Both with the open interval up to now. [s]
        double getWallTime() const { return _timer.getWallTime(); }
        double getCpuTime() const { return _timer.getCpuTime(); }

    protected:
        void onStart() override;
        void onStop() override;

    private:
        Timer _timer;
        std::shared_ptr<CallPaths> _paths;
        std::shared_ptr<const ProfiledEvent> _profiled; ///< null without paths
        unsigned _pathEvent = 0;
    };

    TimeLoggerManager();
    /// @param threshold  the part of the sampled time that an event must exceed to be reported
    /// @param makeTimer  makes all timers of this manager, for example on the clock of a test
    explicit TimeLoggerManager(double threshold, TimerFactory makeTimer = {});
    ~TimeLoggerManager() override;

    /// The sampled time runs while the manager is on. Switching on what is on changes nothing.
    void switchOn() override;
    void switchOff() override;
    EventLogger* createEventLogger(const std::string& first, const std::string& second) override;
    /// [s] that the manager has been on. Local.
    double getSampledTime() const { return _timer.getWallTime(); }
    /// Which event began inside which. For units of this library. Local.
    const CallPaths& getCallPaths() const { return *_paths; }
    /// Writes the file orvexsim+-timed-events-<session>-np-<ranks>-<process>.log in the working directory:
    /// a table for each rank and, in a job, a table over the ranks. Changes nothing that is measured. A later
    /// report of the same process replaces the file. Collective over all processes.
    void report() override;

private:
    struct Event;
    struct Profile;

    TimerEventLogger* getTimerEventLogger(const std::string& first, const std::string& second) const;
    Profile readProfile() const;
    void reportProcesses(OStreamWrapper& out, const Profile& profile, int nameWidth) const;
    void reportEvents(OStreamWrapper& out, const Profile& profile, int nameWidth) const;
    bool exceedsThreshold(double time, double total) const;

    static void printProcessTableHead(OStreamWrapper& out, int W, int C, int nCols, int rank);
    static void printProcessTableData(OStreamWrapper& out, int W, int C, const std::string& name, double wall,
                                      double cpu, double total, std::uint32_t counter);
    static void printEventTableHead(OStreamWrapper& out, int W, int C, int nCols);
    static void printEventTableData(OStreamWrapper& out, int W, int C, const std::string& name,
                                    const RankedValue& maximum, const RankedValue& minimum, double average,
                                    double stddev, double total);

    TimerFactory _makeTimer;
    Timer _timer;
    std::shared_ptr<CallPaths> _paths;
    double _threshold;
    std::wstring _sessionName;
};
