#include "machine/reports/MpiStressTest.h"

#include "machine/Communicator.h"

#include "kernel/Properties.h"
#include "mpiwrapper/OxmMpi.h"

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

void MpiStressTest::settle() {
    constexpr int ROUNDS = 10;
    for (int i = 0; i < ROUNDS; ++i)
        _communicator->synchronise();
}

MpiStressTest::Measurement MpiStressTest::makeMeasurement(double elapsed, double latency,
                                                          double moved) const {
    const double time = elapsed / _nSamples;
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
