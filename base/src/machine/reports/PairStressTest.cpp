#include "machine/reports/PairStressTest.h"

#include "machine/Communicator.h"

#include "kernel/Properties.h"
#include "kernel/Task.h"
#include "mpiwrapper/OxmMpi.h"

#include <iostream>

namespace {

/// Sends `data` to the partner and receives as much from it, at the same time.
void exchange(Communicator& communicator, unsigned* data, std::size_t count, unsigned partner) {
    std::vector<unsigned> received(count); // outlives the requests
    Communicator::RequestStack receives;
    Communicator::RequestStack sends;
    communicator.iRecv(received.data(), count, partner, receives);
    communicator.iSend(data, count, partner, sends);
    communicator.wait(receives);
    communicator.wait(sends);
}

} // namespace

Properties PairStressTest::run() {
    const unsigned ranks = communicator().size();
    chooseSettleRounds();
    Task task(getName());
    std::cout << '\n' << getName() << " : " << std::endl;
    std::vector<Properties> pairs;
    for (unsigned from = 0; from < ranks; ++from)
        for (unsigned to = 0; to < ranks; ++to) {
            if (to == from)
                continue;
            pairs.push_back(runPair(from, to, task, (double(from) * ranks + to) / (double(ranks) * ranks)));
        }
    Properties entry;
    entry.set("Name", getName());
    entry.set("Pt2Pt Results", pairs);
    return entry;
}

Properties PairStressTest::runPair(unsigned from, unsigned to, Task& task, double progress) {
    const double latency = measure(LATENCY_BYTES, 0.0, from, to).time;
    std::vector<Measurement> measurements;
    for (const unsigned bytes : lengths()) {
        task.advance(progress);
        measurements.push_back(measure(bytes, latency, from, to));
        std::cout << '.' << std::flush;
    }
    std::cout << std::endl;
    if (to != Communicator::_master)
        bringToMaster(measurements, to);
    Properties entry;
    entry.set("From Rank", from);
    entry.set("To Rank", to);
    set(measurements, entry);
    return entry;
}

MpiStressTest::Measurement PairStressTest::measure(unsigned bytes, double latency, unsigned from,
                                                   unsigned to) {
    const unsigned me = communicator().myRank();
    const Timing timing = time(bytes, Repetitions::ALL, [&](unsigned* data, std::size_t count, unsigned) {
        if (me == from || me == to)
            exchange(communicator(), data, count, me == from ? to : from);
    });
    // A rank outside the pair measures nothing.
    return timing.seconds > OXM_MPI_Wtick() ? makeMeasurement(timing, latency, 2.0 * bytes) : Measurement();
}

void PairStressTest::bringToMaster(std::vector<Measurement>& measurements, unsigned source) {
    std::vector<double> times;
    std::vector<double> bandwidths;
    if (communicator().myRank() == source) {
        for (const Measurement& each : measurements) {
            times.push_back(each.time);
            bandwidths.push_back(each.bandwidth);
        }
        communicator().send(times, Communicator::_master);
        communicator().send(bandwidths, Communicator::_master);
    } else if (communicator().myRank() == Communicator::_master) {
        communicator().recv(times, source);
        communicator().recv(bandwidths, source);
        for (std::size_t i = 0; i < measurements.size(); ++i)
            measurements[i] = {times.at(i), bandwidths.at(i)};
    }
}
