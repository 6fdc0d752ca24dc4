#pragma once

#include "machine/EventLoggerReporter.h"
#include "machine/MachineExport.h"

#include "kernel/EventLoggerManager.h"
#include "platform/Memory.h"

#include <cstdint>
#include <functional>
#include <string>
#include <utility>

/// Measures how much memory of the process grows while events are open, and writes a profile of all ranks.
///
/// The events are those of EventTracker, once this manager is installed there and switched on. Main thread.
/// The resident memory and its high-water mark count, in MB of 1,048,576 bytes.
class ORVEX_MACHINE_EXPORT MemoryLoggerManager : public EventLoggerManager, public EventLoggerReporter {
public:
    /// Tells the memory of this process; what it can't tell stays as it is.
    using MemorySource = std::function<void(Platform::MemoryUse& use)>;
    static constexpr double DEFAULT_THRESHOLD = 1.0;

    /// The growth in one event: from its last start to its outermost stop.
    class ORVEX_MACHINE_EXPORT MemoryMonitorEventLogger : public EventLogger {
    public:
        MemoryMonitorEventLogger(const std::string& first, const std::string& second, MemorySource source);
        ~MemoryMonitorEventLogger() override;
        /// Both [MB], of the intervals that are over. The resident memory may shrink.
        double getAddedResident() const;
        double getAddedHighWater() const;

    protected:
        void onStart() override;
        void onStop() override;

    private:
        MemorySource _source;
        Platform::MemoryUse _atStart;
        long long _addedResident = 0;
        long long _addedHighWater = 0;
    };

    MemoryLoggerManager();
    /// @param threshold  [MB] that an event must add, or of resident memory free, to be reported
    /// @param source     in place of the system, for example of a test
    explicit MemoryLoggerManager(double threshold, MemorySource source = {});
    ~MemoryLoggerManager() override;

    EventLogger* createEventLogger(const std::string& first, const std::string& second) override;
    /// Writes the file orvexsim+-memory-events-<session>-np-<ranks>-<process>.log in the working directory: a
    /// table for each rank and, in a job, a table over the ranks. A later report of the same process replaces
    /// the file. Collective over all processes.
    void report() override;

private:
    MemoryMonitorEventLogger* getMemoryMonitorEventLogger(const std::string& first,
                                                          const std::string& second) const;
    bool exceedsThreshold(double addedResident, double addedHighWater) const;
    /// [MB] now
    double getHighWater() const;
    void reportProcesses(OStreamWrapper& out, int nameWidth) const;
    void reportEvents(OStreamWrapper& out, int nameWidth) const;

    static void printProcessTableHead(OStreamWrapper& out, int W, int C, int nCols, int rank);
    static void printProcessTableData(OStreamWrapper& out, int W, int C, const std::string& name, double hwm,
                                      double addedResident, double addedHwm, std::uint32_t counter);
    static void printEventTableHead(OStreamWrapper& out, int W, int C, int nCols);
    static void printEventTableData(OStreamWrapper& out, int W, int C, const std::string& name,
                                    const std::pair<long long, unsigned>& maximum,
                                    const std::pair<long long, unsigned>& minimum, double average,
                                    double stddev, double totalAdded, double totalAddedHwm);

    MemorySource _source;
    double _threshold;
    std::wstring _sessionName;
};
