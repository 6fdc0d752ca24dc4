#include "machine/reports/MpiStressTest.h"

#include "machine/Communicator.h"

#include "kernel/Properties.h"
#include "mpiwrapper/OxmMpi.h"

#include <algorithm>
#include <limits>
#include <utility>

MpiStressTest::MpiStressTest(std::string name, Communicator& communicator, unsigned nSamples,
                             const std::vector<unsigned>& messageLengths)
    : _name(std::move(name)), _communicator(&communicator), _nSamples(nSamples),
      _messageLengths(&messageLengths) {}

MpiStressTest::~MpiStressTest() = default;

double MpiStressTest::now() const {
    return OXM_MPI_Wtime();
}

/// Ranks that wait for others leave them the processors: for example those outside a pair.
void MpiStressTest::meet() {
    constexpr double SPIN_TIME = 1e-3; // [s]
    _communicator->noSpinSynchronise(SPIN_TIME, Communicator::Sleeps::GROWING);
}

void MpiStressTest::settle() {
    for (unsigned i = 0; i < _settleRounds; ++i)
        _communicator->synchronise();
}

/// Collective. @param seconds  of one transfer on this rank
unsigned MpiStressTest::agree(double seconds) {
    constexpr double LIMIT = 0.25; // [s]
    _communicator->allReduce(seconds, Communicator::MAX);
    return static_cast<unsigned>(std::clamp(LIMIT / std::max(seconds, 1e-9), 1.0, double(_nSamples)));
}

/// Ranks that share processors take long for a synchronisation, so that meet() has to do.
void MpiStressTest::chooseSettleRounds() {
    constexpr unsigned MOST = 10;
    constexpr double LIMIT = 0.02; // [s]
    meet();
    _communicator->synchronise();
    const double begin = now();
    _communicator->synchronise();
    double seconds = now() - begin;
    _communicator->allReduce(seconds, Communicator::MAX);
    _settleRounds = static_cast<unsigned>(std::clamp(LIMIT / std::max(seconds, 1e-9), 0.0, double(MOST)));
}

MpiStressTest::Measurement MpiStressTest::makeMeasurement(Timing timing, double latency, double moved) {
    const double time = timing.seconds / timing.repetitions;
    const double rest = time - latency;
    return {time, rest > 0.0 ? moved / rest : std::numeric_limits<double>::max()};
}

void MpiStressTest::set(const std::vector<Measurement>& measurements, Properties& entry) {
    std::vector<double> times;
    std::vector<double> bandwidths;
    for (const Measurement& each : measurements) {
        times.push_back(each.time);
        bandwidths.push_back(each.bandwidth);
    }
    entry.set("Average Elapsed Times", times);
    entry.set("Average Bandwidths", bandwidths);
}
