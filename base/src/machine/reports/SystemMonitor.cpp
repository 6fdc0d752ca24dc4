#include "machine/SystemMonitor.h"

#include "machine/Communicator.h"
#include "machine/MachineHost.h"
#include "machine/reports/MemoryHistory.h"
#include "machine/reports/MemoryHistoryFile.h"

#include "kernel/Error.h"
#include "kernel/Raise.h"
#include "kernel/Subject.h"
#include "platform/Lock.h"
#include "platform/Memory.h"
#include "platform/Process.h"
#include "platform/Thread.h"
#include "platform/Time.h"

#include <algorithm>
#include <iostream>
#include <type_traits>
#include <utility>
#include <vector>

namespace {

constexpr unsigned DEFAULT_YIELD_TIME = 20; // [ms]
constexpr double RETRY_TIME = 0.02;         // [s] after a query that failed, while a reader waits
constexpr std::int64_t UNKNOWN = -1;        // the value of a process that has no sample

static_assert(std::is_same_v<SystemMonitor::Values, MemoryHistory::Values>);

/// The clock of the system and its values of this process.
class ProcessSource : public SystemMonitor::Source {
public:
    double getTime() override { return Platform::time().getTime(); }
    bool query(Platform::MemoryUse& use) override { return _query->query(use); }
    void wait(Semaphore& wake, double seconds) override { wake.wait(seconds); }
    double getPatience() override { return 10.0; }

private:
    std::unique_ptr<Platform::MemoryQuery> _query =
        Platform::memory().createQuery(Platform::process().getPid());
};

[[noreturn]] void raiseUnknown() {
    raise(SystemError("The system monitor has no sample: the memory of a process can't be read"));
}

std::int64_t checkKnown(std::int64_t value) {
    if (value == UNKNOWN)
        raiseUnknown();
    return value;
}

} // namespace

/// Lets readers wait for the first sample.
struct SystemMonitor::FirstSample {
    Semaphore semaphore;
    Mutex mutex;
    bool sampled = false; ///< guarded by the mutex
};

SystemMonitor::Source::~Source() = default;

SystemMonitor::SystemMonitor(Subject& onExit, std::unique_ptr<Source> source)
    : _source(source ? std::move(source) : std::make_unique<ProcessSource>()),
      _isFirstOnHost(MachineGround::isSerial() || MachineGround::getHost().firstProcessOnHost()),
      _yieldTime(DEFAULT_YIELD_TIME), _history(std::make_unique<MemoryHistory>()), _exitObserver(*this),
      _onExit(onExit) {
    _onExit.attach(_exitObserver);
}

SystemMonitor::~SystemMonitor() {
    end();
    _worker.reset();
    _onExit.detach(_exitObserver);
}

void SystemMonitor::OnExit::update(Properties&) {
    _monitor.stop();
}

// ---- The worker.

void SystemMonitor::runNestedTask() {
    const double period = std::max(1u, _yieldTime.load()) * 1e-3;
    const double now = _source->getTime();
    // A shorter yield time must not wait for the end of a long one.
    _nextSampleTime = std::min(_nextSampleTime, now + period);
    if (now >= _nextSampleTime || _demandsMet != _demands) {
        if (!sampleMemoryUse() && _demandsMet != _demands) {
            _source->wait(_wake, std::min(period, RETRY_TIME));
            return;
        }
    }
    // On the grid of the period, so that the delays of the wake-ups don't add up. A point of the grid that
    // was missed is left out.
    if (now >= _nextSampleTime)
        _nextSampleTime += period;
    if (_nextSampleTime <= now)
        _nextSampleTime = now + period;
    if (!stopRequested())
        _source->wait(_wake, _nextSampleTime - _source->getTime());
}

bool SystemMonitor::sampleMemoryUse() {
    const unsigned demands = _demands;
    Platform::MemoryUse use;
    if (!_source->query(use))
        return false;
    Values values{};
    values[VIRTUAL] = use.virtualSize;
    values[RESIDENT] = use.residentSize;
    values[LIB] = use.sharedLibraries;
    values[VIRTUAL_HWM] = use.virtualHighWater;
    values[RESIDENT_HWM] = use.residentHighWater;
    values[ADJUSTED_VIRTUAL] = _isFirstOnHost ? use.virtualSize : use.virtualSize - use.sharedLibraries;
    return publish(values, demands);
}

bool SystemMonitor::publish(const Values& values, unsigned demands) {
    const Lock lock(_dataMutex);
    if (demands != _demands)
        return false; // resetPeak() during the query: this sample must not become a peak behind it
    _demandsMet = demands;
    _current = values;
    std::ranges::transform(_peak, values, _peak.begin(), [](auto a, auto b) { return std::max(a, b); });
    if (_isRecording)
        _history->append(getRecordedTime(), values);
    if (!_firstSample)
        return true;
    const Lock firstLock(_firstSample->mutex);
    if (!_firstSample->sampled) {
        _firstSample->sampled = true;
        _firstSample->semaphore.post();
    }
    return true;
}

// ---- Control.

/// Under the data mutex.
void SystemMonitor::demandSample() {
    ++_demands;
    _wake.post();
}

void SystemMonitor::start() {
    ORVEX_ASSERT(!running(), "SystemMonitor is already running.");
    if (!_worker)
        _worker = std::make_unique<Thread>(*this, "SystemMonitor");
    {
        const Lock lock(_dataMutex);
        _firstSample = std::make_unique<FirstSample>();
        demandSample();
    }
    try {
        _worker->start();
    } catch (...) {
        _firstSample.reset();
        throw;
    }
}

void SystemMonitor::stop() {
    if (!running())
        return;
    static_cast<void>(waitForFirstSample());
    end();
}

/// Not virtual: for the destructor as well.
void SystemMonitor::end() {
    if (!running())
        return;
    InterruptableRunnable::stop();
    _wake.post();
    _worker->join();
    _firstSample.reset();
}

void SystemMonitor::setYieldTime(const unsigned int& milliseconds) {
    _yieldTime = milliseconds;
    _wake.post();
}

void SystemMonitor::startRecording() {
    if (MachineGround::isParallel())
        MachineGround::globalCommunicator().synchronise();
    const Lock lock(_dataMutex);
    if (_isRecording)
        return;
    _recordingStart = _source->getTime();
    _isRecording = true;
}

void SystemMonitor::stopRecording() {
    if (MachineGround::isParallel())
        MachineGround::globalCommunicator().synchronise();
    const Lock lock(_dataMutex);
    if (!_isRecording)
        return;
    _timeBefore = getRecordedTime();
    _isRecording = false;
}

/// Under the data mutex, while recording.
double SystemMonitor::getRecordedTime() const {
    return _timeBefore + (_source->getTime() - _recordingStart);
}

double SystemMonitor::getTime() const {
    const Lock lock(_dataMutex);
    return _isRecording ? getRecordedTime() : 0.0;
}

void SystemMonitor::resetPeak() {
    const Lock lock(_dataMutex);
    _peak.fill(0);
    if (running())
        _firstSample = std::make_unique<FirstSample>();
    demandSample();
}

// ---- Readings.

bool SystemMonitor::waitForFirstSample() const {
    if (!_firstSample)
        return true;
    {
        const Lock lock(_firstSample->mutex);
        if (_firstSample->sampled)
            return true;
    }
    return _firstSample->semaphore.wait(_source->getPatience());
}

std::int64_t SystemMonitor::read(const Values& values, MemoryMetric metric) const {
    if (!waitForFirstSample())
        return UNKNOWN;
    const Lock lock(_dataMutex);
    return values.at(static_cast<std::size_t>(metric));
}

std::int64_t SystemMonitor::sumOverHost(std::int64_t value) const {
    if (MachineGround::isSerial())
        return value;
    Communicator& comm = MachineGround::globalCommunicator();
    std::vector<unsigned> mpiRanks;
    MachineGround::getHost().getMpiRanks(mpiRanks);
    if (!_isFirstOnHost) {
        ORVEX_ASSERT(mpiRanks[0] != comm.myRank(), "Mismatch on host ranks");
        comm.send(value, mpiRanks[0]);
        comm.recv(value, mpiRanks[0]);
        return value;
    }
    ORVEX_ASSERT(mpiRanks[0] == comm.myRank(), "Mismatch on host ranks");
    for (std::size_t i = 1; i < mpiRanks.size(); ++i) {
        std::int64_t other = 0;
        comm.recv(other, mpiRanks[i]);
        value = value == UNKNOWN || other == UNKNOWN ? UNKNOWN : value + other;
    }
    for (std::size_t i = 1; i < mpiRanks.size(); ++i)
        comm.send(value, mpiRanks[i]);
    return value;
}

/// One that is unknown makes the result unknown on all ranks, with one message for both.
std::int64_t SystemMonitor::foldOverJob(std::int64_t value, Fold fold) {
    if (MachineGround::isSerial())
        return value;
    const bool isUnknown = value == UNKNOWN;
    const std::int64_t sign = fold == Fold::MIN ? -1 : 1; // the smallest is the largest of the negatives
    std::array<std::int64_t, 2> folded{isUnknown ? 0 : sign * value, isUnknown ? 1 : 0};
    MachineGround::globalCommunicator().allReduce(folded,
                                                  fold == Fold::SUM ? Communicator::SUM : Communicator::MAX);
    return folded[1] > 0 ? UNKNOWN : sign * folded[0];
}

std::int64_t SystemMonitor::getProcessMem(const Values& values, MemoryMetric metric) const {
    return checkKnown(read(values, metric));
}

std::int64_t SystemMonitor::getHostMem(const Values& values, MemoryMetric metric) const {
    return checkKnown(sumOverHost(read(values, metric)));
}

std::int64_t SystemMonitor::getProcessMemory(MemoryMetric metric) const {
    return getProcessMem(_current, metric);
}
std::int64_t SystemMonitor::getProcessPeakMemory(MemoryMetric metric) const {
    return getProcessMem(_peak, metric);
}
std::int64_t SystemMonitor::getHostMemory(MemoryMetric metric) const {
    return getHostMem(_current, metric);
}
std::int64_t SystemMonitor::getHostPeakMemory(MemoryMetric metric) const {
    return getHostMem(_peak, metric);
}
std::int64_t SystemMonitor::getGlobalAccumulatedMemory(MemoryMetric metric) const {
    return checkKnown(foldOverJob(read(_current, metric), Fold::SUM));
}
std::int64_t SystemMonitor::getGlobalAccumulatedPeakMemory(MemoryMetric metric) const {
    return checkKnown(foldOverJob(read(_peak, metric), Fold::SUM));
}
std::int64_t SystemMonitor::getGlobalMaxProcessMemory(MemoryMetric metric) const {
    return checkKnown(foldOverJob(read(_current, metric), Fold::MAX));
}
std::int64_t SystemMonitor::getGlobalMaxProcessPeakMemory(MemoryMetric metric) const {
    return checkKnown(foldOverJob(read(_peak, metric), Fold::MAX));
}
std::int64_t SystemMonitor::getGlobalMinProcessMemory(MemoryMetric metric) const {
    return checkKnown(foldOverJob(read(_current, metric), Fold::MIN));
}
std::int64_t SystemMonitor::getGlobalMinProcessPeakMemory(MemoryMetric metric) const {
    return checkKnown(foldOverJob(read(_peak, metric), Fold::MIN));
}
std::int64_t SystemMonitor::getGlobalMaxHostMemory(MemoryMetric metric) const {
    return checkKnown(foldOverJob(sumOverHost(read(_current, metric)), Fold::MAX));
}
std::int64_t SystemMonitor::getGlobalMaxHostPeakMemory(MemoryMetric metric) const {
    return checkKnown(foldOverJob(sumOverHost(read(_peak, metric)), Fold::MAX));
}
std::int64_t SystemMonitor::getGlobalMinHostMemory(MemoryMetric metric) const {
    return checkKnown(foldOverJob(sumOverHost(read(_current, metric)), Fold::MIN));
}
std::int64_t SystemMonitor::getGlobalMinHostPeakMemory(MemoryMetric metric) const {
    return checkKnown(foldOverJob(sumOverHost(read(_peak, metric)), Fold::MIN));
}

void SystemMonitor::copyHistory(MemoryHistory& history) const {
    const Lock lock(_dataMutex);
    history = *_history;
}

void SystemMonitor::exportHistoryData(const std::string& fileName) const {
    std::cout << "Exporting memory history to file : " << fileName << std::endl;
    MemoryHistory history;
    copyHistory(history);
    MemoryHistoryFile(fileName).write(history);
}
