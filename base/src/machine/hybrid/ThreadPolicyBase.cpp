#include "machine/ThreadPolicyBase.h"

#include "machine/Affinity.h"
#include "machine/CpuTopology.h"
#include "machine/MachineGround.h"
#include "machine/MachineHost.h"
#include "machine/ThreadCount.h"
#include "machine/hybrid/TaskSchedulerInit.h"

#include "kernel/Raise.h"
#include "platform/Log.h"
#include "platform/StringHelper.h"
#include "platform/ThreadStacks.h"
#include "platform/Threads.h"

#include <omp.h>
#include <tbb/task_arena.h>
#include <tbb/task_scheduler_observer.h>

#include <algorithm>
#include <map>
#include <mutex>
#include <optional>

namespace {

constexpr unsigned MASK_LENGTH = 60; ///< of a printed mask's description
constexpr unsigned MATH_LIBRARIES = ThreadCount::MKL | ThreadCount::MATH_OPENMP;

std::string printOwnAffinity(const CpuTopology& topology) {
    return topology.printAffinityMask(Affinity::getThreadAffinity(topology), MASK_LENGTH);
}

/// "TBB Thread  3 - Affinity = {...}"
std::string makeLine(const std::string& runtime, std::size_t index, std::size_t count,
                     const std::string& affinity) {
    const std::size_t width = std::to_string(count - 1).size();
    const std::string number = std::to_string(index);
    return runtime + " Thread " + std::string(width - std::min(width, number.size()), ' ') + number +
           " - Affinity = " + affinity;
}

/// OpenMP's own variables bind its threads to places that it chose when the process started.
void warnOfOpenMpBinding() {
    static bool isTold = false;
    if (std::exchange(isTold, true) || omp_get_proc_bind() == omp_proc_bind_false)
        return;
    OS::Log::instance("Default").warning(
        "ThreadPolicyBase",
        "OMP_PROC_BIND or OMP_PLACES is set: OpenMP may move its threads away from the processors "
        "that this process chose for them.");
}

} // namespace

/// Which thread runs where.
class ThreadPolicyBase::Placement {
public:
    Placement(unsigned numThreads, bool bindThreads)
        : _topology(MachineGround::getHost().getCpuTopology()), _numThreads(numThreads),
          _processAffinity(Affinity::getProcessAffinity(_topology)) {
        if (bindThreads)
            _lpus = _topology.getLpuSubset(_topology.getLpusFromMask(_processAffinity), numThreads,
                                           CpuTopology::Spread, true);
        for (const unsigned lpu : _lpus)
            _masks.push_back(_topology.getLpuMask(lpu));
    }
    Placement(const Placement&) = delete;
    Placement& operator=(const Placement&) = delete;

    const CpuTopology& getTopology() const { return _topology; }
    bool bindsToOne() const { return !_masks.empty(); }
    /// Binds this thread as thread `index`. A refusal leaves it where it was.
    void bind(unsigned index) const { setThreadAffinity(_topology, getMask(index)); }
    /// The thread `number` of those beside the main thread.
    void bindHelper(unsigned number, int systemThread) const {
        setThreadAffinity(_topology, getMask(1 + number % std::max(1u, _numThreads - 1)), systemThread);
    }

private:
    const AffinityMask& getMask(unsigned index) const {
        return _masks.empty() ? _processAffinity : _masks[index % _masks.size()];
    }

    const CpuTopology& _topology;
    unsigned _numThreads;
    AffinityMask _processAffinity;
    std::vector<unsigned> _lpus;
    std::vector<AffinityMask> _masks; ///< one for each of them
};

/// The threads that the main thread starts inside a context and that nobody else places: those of OpenMP and
/// of the mathematical libraries. A new thread has the binding of the thread that made it, and the main
/// thread is bound to one processor.
class ThreadPolicyBase::HelperThreads : public ThreadStacks::Watcher {
public:
    static HelperThreads& getSingleton() {
        static auto* const singleton = new HelperThreads; // threads may end at the very end of the process
        return *singleton;
    }

    /// The context at hand.
    class Scope {
    public:
        explicit Scope(const Placement& placement) { getSingleton().begin(placement); }
        ~Scope() { getSingleton().end(); }
        Scope(const Scope&) = delete;
        Scope& operator=(const Scope&) = delete;
    };

    /// This thread is somebody else's.
    void forget() noexcept {
        const std::lock_guard lock(_mutex);
        const int self = Platform::threads().getSystemId();
        std::erase_if(_helpers, [self](const Helper& helper) { return helper.thread == self; });
    }

    void noteStart() noexcept override {
        const std::lock_guard lock(_mutex);
        if (!_placement)
            return;
        unsigned number = 0;
        while (std::ranges::find(_helpers, number, &Helper::number) != _helpers.end())
            ++number;
        try {
            _helpers.push_back({Platform::threads().getSystemId(), number});
            _placement->bindHelper(number, _helpers.back().thread);
        } catch (const std::exception&) { // no memory: the thread stays beside the main one
        }
    }
    void noteEnd() noexcept override { forget(); }

private:
    /// Places the threads that are left of earlier contexts, and from here on the new ones.
    void begin(const Placement& placement) {
        const std::lock_guard lock(_mutex);
        ThreadStacks::setWatcher(this);
        _placement = &placement;
        unsigned number = 0;
        for (Helper& helper : _helpers) {
            helper.number = number++;
            placement.bindHelper(helper.number, helper.thread);
        }
    }
    void end() {
        const std::lock_guard lock(_mutex);
        _placement = nullptr;
    }

    struct Helper {
        int thread;
        unsigned number;
    };

    std::mutex _mutex;
    const Placement* _placement = nullptr; ///< of the context at hand
    std::vector<Helper> _helpers;
};

/// Places TBB's threads when they enter the arena, and keeps where they are.
///
/// TBB calls a hook for each entry, so that a thread may come again and again: its slot in the arena is its
/// number.
class ThreadPolicyBase::TbbThreadObserver : public tbb::task_scheduler_observer {
public:
    TbbThreadObserver(tbb::task_arena& arena, const Placement& placement, bool bind, bool record)
        : tbb::task_scheduler_observer(arena), _placement(placement), _bind(bind), _record(record) {
        observe(true);
    }
    ~TbbThreadObserver() override { observe(false); } // waits for calls under way
    TbbThreadObserver(const TbbThreadObserver&) = delete;
    TbbThreadObserver& operator=(const TbbThreadObserver&) = delete;

    void on_scheduler_entry(bool isWorker) override {
        try {
            if (isWorker)
                HelperThreads::getSingleton().forget();
            const auto index =
                static_cast<unsigned>(std::max(0, tbb::this_task_arena::current_thread_index()));
            if (_bind)
                _placement.bind(index);
            if (_record) {
                std::string affinity = printOwnAffinity(_placement.getTopology());
                const std::lock_guard lock(_mutex);
                _affinities[index] = std::move(affinity);
            }
        } catch (const std::exception&) { // no memory: nobody here can be told
        }
    }

    std::vector<std::string> report() const {
        const std::lock_guard lock(_mutex);
        std::vector<std::string> lines;
        for (const auto& [index, affinity] : _affinities)
            lines.push_back(makeLine("TBB", index, _affinities.size(), affinity));
        return lines;
    }

private:
    const Placement& _placement;
    bool _bind;
    bool _record;
    mutable std::mutex _mutex;
    std::map<unsigned, std::string> _affinities; ///< by thread
};

struct ThreadPolicyBase::Impl {
    Impl(unsigned numThreads, bool bindThreads, Configuration configured)
        : configuration(configured), placement(numThreads, bindThreads) {}

    Configuration configuration;
    Placement placement;
    AffinityMask mainAffinity = {}; ///< before
    std::optional<HelperThreads::Scope> helpers = {};
    std::optional<ThreadCount::ScopedInitializer> threadCount = {};
    std::optional<TbbThreadObserver> observer = {};
};

ThreadPolicyBase::ThreadPolicyBase(unsigned numThreads, bool bindThreads)
    : ThreadPolicyBase(numThreads, bindThreads, Configuration()) {}

ThreadPolicyBase::ThreadPolicyBase(unsigned numThreads, bool bindThreads, Configuration configuration)
    : _impl(std::make_unique<Impl>(numThreads, bindThreads, configuration)) {
    const Placement& placement = _impl->placement;
    _impl->mainAffinity = Affinity::getThreadAffinity(placement.getTopology());
    if (placement.bindsToOne()) {
        warnOfOpenMpBinding();
        _impl->helpers.emplace(placement); // the libraries may start threads when their count is set
    }
    _impl->threadCount.emplace(configuration.threadCountLibraries, MATH_LIBRARIES, numThreads);
    const bool bindTbb = (configuration.bindLibraries & ThreadCount::TBB) != 0;
    const bool recordTbb = (configuration.reportLibraries & ThreadCount::TBB) != 0;
    TaskSchedulerInit* const scheduler = _impl->threadCount->getTaskScheduler();
    if (scheduler && (bindTbb || recordTbb))
        _impl->observer.emplace(scheduler->getArena(), placement, bindTbb, recordTbb);
    if ((configuration.bindLibraries & ThreadCount::OPENMP) != 0) {
#pragma omp parallel
        placement.bind(static_cast<unsigned>(omp_get_thread_num()));
    }
}

ThreadPolicyBase::~ThreadPolicyBase() {
    _impl->observer.reset();
    _impl->helpers.reset();
    _impl->threadCount.reset();
    setThreadAffinity(_impl->placement.getTopology(), _impl->mainAffinity);
}

std::vector<std::string> ThreadPolicyBase::reportThreadAffinities() const {
    std::vector<std::string> lines;
    if (_impl->observer)
        lines = _impl->observer->report();
    if ((_impl->configuration.reportLibraries & ThreadCount::OPENMP) == 0)
        return lines;
    const CpuTopology& topology = _impl->placement.getTopology();
    std::vector<std::string> affinities(static_cast<std::size_t>(omp_get_max_threads()));
    std::size_t count = 0;
#pragma omp parallel
    {
        try {
            affinities[static_cast<std::size_t>(omp_get_thread_num())] = printOwnAffinity(topology);
        } catch (const std::exception&) { // no memory: no text
        }
#pragma omp master
        count = static_cast<std::size_t>(omp_get_num_threads());
    }
    for (std::size_t i = 0; i < count; ++i)
        lines.push_back(makeLine("OpenMP", i, count, affinities[i]));
    return lines;
}

bool ThreadPolicyBase::setThreadAffinity(const CpuTopology& topology, const AffinityMask& mask) {
    return Affinity::setThreadAffinity(topology, mask);
}

bool ThreadPolicyBase::setThreadAffinity(const CpuTopology& topology, const AffinityMask& mask,
                                         int systemThread) {
    return Affinity::setThreadAffinity(topology, mask, systemThread);
}
