#include "machine/reports/CollectiveStressTest.h"

#include "machine/Communicator.h"

#include "kernel/Properties.h"
#include "kernel/Task.h"

#include <iostream>
#include <utility>

CollectiveStressTest::CollectiveStressTest(std::string name, Kind kind, Transfer transfer,
                                           Communicator& communicator, unsigned nSamples,
                                           const std::vector<unsigned>& messageLengths)
    : MpiStressTest(std::move(name), communicator, nSamples, messageLengths), _kind(kind),
      _transfer(transfer) {}

Properties CollectiveStressTest::run() {
    chooseSettleRounds();
    const double latency = measure(LATENCY_BYTES, 0.0).time;
    Task task(getName());
    std::cout << '\n' << getName() << " : " << std::flush;
    std::vector<Measurement> measurements;
    for (const unsigned bytes : lengths()) {
        task.advance(double(measurements.size()) / double(lengths().size()));
        measurements.push_back(measure(bytes, latency));
        std::cout << '.' << std::flush;
    }
    std::cout << std::endl;
    Properties entry;
    entry.set("Name", getName());
    set(measurements, entry);
    return entry;
}

MpiStressTest::Measurement CollectiveStressTest::measure(unsigned bytes, double latency) {
    const unsigned ranks = communicator().size();
    Timing timing = time(bytes, Repetitions::AGREED, [&](unsigned* data, std::size_t count, unsigned sample) {
        _transfer(communicator(), data, count, sample % ranks);
    });
    if (_kind == GLOBAL)
        return makeMeasurement(timing, latency, bytes);
    communicator().reduce(timing.seconds, Communicator::MAX, Communicator::_master);
    return makeMeasurement(timing, latency, 2.0 * bytes * (ranks - 1));
}
