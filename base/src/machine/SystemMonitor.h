#pragma once

#include "machine/MachineExport.h"
#include "machine/MachineGround.h"
#include "platform/InterruptableRunnable.h"
#include "platform/Mutex.h"
#include "platform/Semaphore.h"

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

class MemoryHistory;
class Subject;
class Thread;

namespace Platform {
struct MemoryUse;
}

/// Samples the memory of this process on a thread of its own: current and peak values, and a series over
/// time. Folds them over a host and over the job, and writes the series of the job as one CSV file.
///
/// Machine owns the monitor of the process: Machine::enableSystemMonitor() makes it, on all ranks. All
/// operations are for the main thread. Values are in bytes.
class ORVEX_MACHINE_EXPORT SystemMonitor : public InterruptableRunnable {
public:
    /// The kinds of memory, in the order of the columns in the CSV file.
    enum MemoryMetric : int {
        VIRTUAL = 0,          ///< virtual size of the process
        RESIDENT = 1,         ///< resident size
        LIB = 2,              ///< the part of shared libraries
        VIRTUAL_HWM = 3,      ///< the largest virtual size so far, as the system tells it
        RESIDENT_HWM = 4,     ///< the largest resident size so far
        ADJUSTED_VIRTUAL = 5, ///< without LIB, except on the first process of a host: made for sums
    };
    static constexpr std::size_t NUMBER_METRICS = 6;
    /// One value for each metric. [bytes]
    using Values = std::array<std::int64_t, NUMBER_METRICS>;

    /// The source of the monitor's values and of its time: for tests. Its worker calls it on its thread,
    /// and getTime() is called on the main thread too.
    class ORVEX_MACHINE_EXPORT Source {
    public:
        virtual ~Source();
        /// [s] since an arbitrary moment; never goes back.
        virtual double getTime() = 0;
        /// @return false, with `use` unchanged, when the memory can't be read
        virtual bool query(Platform::MemoryUse& use) = 0;
        /// Waits for `seconds`, but no longer than until `wake` is posted.
        virtual void wait(Semaphore& wake, double seconds) = 0;
        /// [s] that a reader waits at most for its first sample.
        virtual double getPatience() = 0;
    };

    /// A stopped monitor with the time between two samples of 20 ms. It stops itself when `onExit` notifies.
    /// Local; in a parallel process the host must exist.
    /// @param onExit  Machine::getOnExitObservable(). Borrowed; outlives the monitor
    /// @param source  null: the system's clock and its values of this process
    explicit SystemMonitor(Subject& onExit, std::unique_ptr<Source> source = nullptr);
    /// Stops the worker and waits for its end. Local.
    ~SystemMonitor() override;
    SystemMonitor(const SystemMonitor&) = delete;
    SystemMonitor& operator=(const SystemMonitor&) = delete;

    // ---- Control.

    /// Starts the worker, which takes its first sample at once. Local.
    /// @throw InternalError when it is running; std::system_error, with the monitor still stopped, when the
    /// system has no thread left
    void start();
    /// Waits for the first sample, then for the end of the worker, at most for one sample. The values stay.
    /// Nothing on a stopped monitor. Local.
    void stop() override;
    bool running() const { return _firstSample != nullptr; }
    /// Sets the time between two samples [ms]; 0 counts as 1. Takes effect at once. Local.
    void setYieldTime(const unsigned int& milliseconds);
    /// Has each sample added to the history. Behind stopRecording() it goes on at the time where it ended.
    /// Collective over the job.
    void startRecording();
    /// Keeps the history. Collective over the job.
    void stopRecording();
    /// [s] of recording so far; 0 when it is off. Local.
    double getTime() const;
    /// Forgets the peak values. While the monitor runs it takes a new sample at once, and readers wait for
    /// it. Local.
    void resetPeak();

    // ---- Readings.
    //
    // All wait for the first sample since start() or resetPeak(), but for no longer than 10 s. A stopped
    // monitor has its last values. In a serial process all give the local value.
    // Collective readings @throw SystemError on all of their ranks when one of them has no sample in time.

    /// Local. @throw SystemError when no sample came in time
    std::int64_t getProcessMemory(MemoryMetric metric) const;
    std::int64_t getProcessPeakMemory(MemoryMetric metric) const;
    /// The sum over the processes of this host. Collective over them.
    std::int64_t getHostMemory(MemoryMetric metric) const;
    /// The sum of the peaks, which may have come at different moments. Collective as getHostMemory().
    std::int64_t getHostPeakMemory(MemoryMetric metric) const;

    // Collective over the job:

    /// The sum over all processes.
    std::int64_t getGlobalAccumulatedMemory(MemoryMetric metric) const;
    std::int64_t getGlobalAccumulatedPeakMemory(MemoryMetric metric) const;
    std::int64_t getGlobalMaxProcessMemory(MemoryMetric metric) const;
    std::int64_t getGlobalMaxProcessPeakMemory(MemoryMetric metric) const;
    std::int64_t getGlobalMinProcessMemory(MemoryMetric metric) const;
    std::int64_t getGlobalMinProcessPeakMemory(MemoryMetric metric) const;
    /// The sum of each host, then the largest of them.
    std::int64_t getGlobalMaxHostMemory(MemoryMetric metric) const;
    std::int64_t getGlobalMaxHostPeakMemory(MemoryMetric metric) const;
    std::int64_t getGlobalMinHostMemory(MemoryMetric metric) const;
    std::int64_t getGlobalMinHostPeakMemory(MemoryMetric metric) const;

    /// The recorded samples of this process so far. For units of this library. Local.
    void copyHistory(MemoryHistory& history) const;
    /// Writes the history of the job as a CSV file on the serial or master process: one row for each time
    /// step. A row sums over all processes the largest value that each of them saw in the step. The steps
    /// are as long as the longest time between two samples of a process. The rows end with the shortest
    /// history of a process. When a process has no history, says so and writes no file. Collective over the
    /// job.
    /// @param fileName  of the master's; an older file is replaced
    /// @throw SystemError on all ranks when the file can't be written. The part of it that was written is
    /// removed, and the history stays
    void exportHistoryData(const std::string& fileName) const;

protected:
    /// Takes a sample when one is due, and sleeps until the next. For the worker.
    void runNestedTask() override;

private:
    struct FirstSample;
    enum class Fold { SUM, MAX, MIN };

    /// Stops the monitor when the process ends.
    class OnExit : public MachineGround::OnExitObserver {
    public:
        explicit OnExit(SystemMonitor& monitor) : _monitor(monitor) {}
        void update(Properties& properties) override;

    private:
        SystemMonitor& _monitor;
    };

    // ---- On the worker.
    bool sampleMemoryUse();
    bool publish(const Values& values, unsigned demands);

    // ---- On the main thread.
    void demandSample();
    void end();
    bool waitForFirstSample() const;
    double getRecordedTime() const;
    /// The local value; UNKNOWN when there is none.
    std::int64_t read(const Values& values, MemoryMetric metric) const;
    std::int64_t getProcessMem(const Values& values, MemoryMetric metric) const;
    std::int64_t getHostMem(const Values& values, MemoryMetric metric) const;
    std::int64_t sumOverHost(std::int64_t value) const;
    static std::int64_t foldOverJob(std::int64_t value, Fold fold);

    const std::unique_ptr<Source> _source;
    const bool _isFirstOnHost;
    std::atomic<unsigned> _yieldTime;  ///< [ms]
    Semaphore _wake;                   ///< ends the sleep of the worker
    std::atomic<unsigned> _demands{0}; ///< samples asked for, beside those of the grid
    unsigned _demandsMet = 0;          ///< this and the next: the worker's alone
    double _nextSampleTime = 0.0;      ///< [s] of the source's clock

    mutable Mutex _dataMutex; ///< guards the following up to the history
    Values _current{};
    Values _peak{};
    bool _isRecording = false;
    double _recordingStart = 0.0; ///< [s] of the source's clock
    double _timeBefore = 0.0;     ///< [s] of the recordings that are over
    std::unique_ptr<MemoryHistory> _history;
    std::unique_ptr<FirstSample> _firstSample; ///< null while stopped. Only the main thread changes it

    std::unique_ptr<Thread> _worker;
    OnExit _exitObserver;
    Subject& _onExit;
};
