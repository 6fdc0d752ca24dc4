#include "harness/MachineBench.h"

#include "machine/Communicator.h"
#include "machine/HybridMpiThreadContext.h"
#include "machine/Machine.h"
#include "machine/MachineHost.h"
#include "machine/ShmemWindow.h"
#include "machine/hybrid/HostMeeting.h"
#include "modules/OrvexParallelSandbox/GridField.h"

#include "unit/machine/hardware/AffinityTestAccess.h"

#include <tbb/global_control.h>
#include <tbb/parallel_for.h>
#include <tbb/task_arena.h>

#include <chrono>
#include <optional>
#include <vector>

// Hybrid contexts against the same work without them, and shared memory against arrays and messages.

namespace {

constexpr std::size_t CELLS = std::size_t{1} << 22; ///< of a field, far more than the caches hold
constexpr unsigned GRID = 256;                      ///< points along each side
constexpr MessageOperation MEET{"HybridBench::meet", CommunicatorStatistics::GLOBAL, true,
                                Collective::SLEEPING_SYNCHRONISE};

void work(double seconds) {
    using Clock = std::chrono::steady_clock;
    const auto end = Clock::now() + std::chrono::duration<double>(seconds);
    while (Clock::now() < end) {
    }
}

class HybridBench {
public:
    HybridBench(const MpiBench&, BenchHarness& harness) : _harness(harness) {
        // The references have no binding that a context would widen.
        AffinityTestAccess::clearProcess(Machine::getHost().getCpuTopology());
        Machine::getSingleton().startSharedMemory();
        _threads = Machine::sharedMemCommunicator(Machine::HOST_SCOPE).size();
    }
    ~HybridBench() {
        _window.reset();
        _shared.reset();
    }
    HybridBench(const HybridBench&) = delete;
    HybridBench& operator=(const HybridBench&) = delete;

    void addAll() {
        addContexts();
        addKernel();
        addWindow();
        addHalo();
    }

private:
    void addContexts() {
        _harness.addReference("empty context", "two sleeping barriers", [this](int n) {
            for (int i = 0; i < 2 * n; ++i)
                _all.noSpinSynchronise(0.0);
        });
        _harness.addCase("two meetings", [this](int n) {
            for (int i = 0; i < 2 * n; ++i)
                HostMeeting::meet(_all, MEET, false, 0.0);
        });
        _harness.addCase("context", [](int n) {
            for (int i = 0; i < n; ++i)
                HybridMpiThreadContext::execute(Machine::HOST_SCOPE, [](const HybridMachine&) {});
        });
        constexpr double MILLISECOND = 1e-3;
        _harness.addReference("1 ms of work", "bare", [](int n) {
            for (int i = 0; i < n; ++i)
                work(MILLISECOND);
        });
        _harness.addCase("in a context", [](int n) {
            for (int i = 0; i < n; ++i)
                HybridMpiThreadContext::execute(Machine::HOST_SCOPE,
                                                [](const HybridMachine&) { work(MILLISECOND); });
        });
    }

    /// a = b + 3 c, on all threads.
    void triad() {
        double* const a = _a.data();
        const double* const b = _b.data();
        const double* const c = _c.data();
        tbb::parallel_for(tbb::blocked_range<std::size_t>(0, _a.size(), 1 << 16),
                          [=](const tbb::blocked_range<std::size_t>& range) {
                              for (std::size_t i = range.begin(); i != range.end(); ++i)
                                  a[i] = b[i] + 3.0 * c[i];
                          });
    }
    void addKernel() {
        if (_all.myRank() == 0)
            for (std::vector<double>* const field : {&_a, &_b, &_c})
                field->assign(CELLS, 1.0);
        _harness.addReference("memory-bound kernel", "bare TBB, the other ranks asleep", [this](int n) {
            if (_all.myRank() == 0) {
                const tbb::global_control limit(tbb::global_control::max_allowed_parallelism, _threads);
                static tbb::task_arena arena(static_cast<int>(_threads), 1);
                for (int i = 0; i < n; ++i)
                    arena.execute([this] { triad(); });
            }
            HostMeeting::meet(_all, MEET, false, 0.0);
        });
        _harness.addCase("in a context", [this](int n) {
            for (int i = 0; i < n; ++i)
                HybridMpiThreadContext::execute(Machine::HOST_SCOPE,
                                                [this](const HybridMachine&) { triad(); });
        });
    }

    static double sum(const double* values, std::size_t count) {
        double parts[8]{};
        for (std::size_t i = 0; i + 8 <= count; i += 8)
            for (std::size_t k = 0; k < 8; ++k)
                parts[k] += values[i + k];
        double all = 0.0;
        for (const double part : parts)
            all += part;
        return all;
    }
    void addWindow() {
        constexpr std::size_t COUNT = 1 << 16;
        _array.assign(COUNT, 1.0);
        _window.emplace(COUNT, Machine::sharedMemCommunicator(Machine::HOST_SCOPE));
        for (double& value : _window->ownShare())
            value = 1.0;
        _window->fence();
        _harness.addReference("reading 512 KiB", "array", [this](int n) {
            for (int i = 0; i < n; ++i)
                _sink = _sink + sum(_array.data(), _array.size());
        });
        _harness.addCase("window", [this](int n) {
            for (int i = 0; i < n; ++i)
                _sink = _sink + sum(_window->data(), _window->size());
        });
    }

    void addHalo() {
        _block.emplace(GRID, GRID, _all.size(), _all.myRank());
        _field.emplace(*_block);
        _messages.emplace(*_block, &_all);
        _shared.emplace(*_block, &_all);
        _shared->shareMemory();
        const auto exchange = [this](HaloExchange& halo, int n) {
            for (int i = 0; i < n; ++i) {
                halo.begin(*_field);
                halo.end(*_field);
            }
        };
        _harness.addReference("halo of a grid of 256 x 256", "messages",
                              [this, exchange](int n) { exchange(*_messages, n); });
        _harness.addCase("window", [this, exchange](int n) { exchange(*_shared, n); });
    }

    BenchHarness& _harness;
    Communicator& _all = Machine::globalCommunicator();
    unsigned _threads = 1;
    std::vector<double> _a;
    std::vector<double> _b;
    std::vector<double> _c;
    std::vector<double> _array;
    volatile double _sink = 0.0;
    std::optional<ShmemWindow<double>> _window;
    std::optional<GridBlock> _block;
    std::optional<GridField> _field;
    std::optional<HaloExchange> _messages;
    std::optional<HaloExchange> _shared;
};

} // namespace

int main(int argc, char** argv) {
    return runMachineBench<HybridBench>("HybridBench", argc, argv);
}
