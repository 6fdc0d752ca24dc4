#include "harness/MpiBench.h"

#include "machine/Communicator.h"
#include "machine/Machine.h"

#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <map>
#include <string>
#include <string_view>
#include <vector>

// The cost of a rank that waits in noSpinSynchronise, and how late it wakes up.
//
//     WaitBench -mpi DRIVER [--rounds N] [--seconds S] [--json FILE]

namespace {

using Clock = std::chrono::steady_clock;

constexpr double SLEEP = 0.010; ///< [s] between two looks of a waiting rank
constexpr double SPIN = 0.001;  ///< [s]

double getProcessorTime() {
    timespec time{};
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &time);
    return static_cast<double>(time.tv_sec) + 1e-9 * static_cast<double>(time.tv_nsec);
}

double getMedian(std::vector<double> values) {
    std::sort(values.begin(), values.end());
    return values[values.size() / 2];
}

void sleepFor(double seconds) {
    usleep(static_cast<useconds_t>(seconds * 1e6));
}

/// The share of a core that the dearest waiting rank takes while the last one is late.
double measureWait(Communicator& comm, double seconds) {
    comm.synchronise();
    const double before = getProcessorTime();
    if (comm.myRank() + 1 == comm.size())
        sleepFor(seconds);
    else
        comm.noSpinSynchronise(SPIN);
    double share = (getProcessorTime() - before) / seconds;
    if (comm.myRank() + 1 == comm.size())
        comm.noSpinSynchronise(SPIN);
    comm.allReduce(share, Communicator::MAX);
    return share;
}

/// From the last rank's arrival until rank 0 goes on, in sleeps. The ranks share a clock: they are on one
/// host.
double measureWakeUp(Communicator& comm, int round) {
    double arrival = 0.0;
    comm.synchronise();
    if (comm.myRank() + 1 == comm.size()) {
        sleepFor(0.05 + 0.00071 * (round % 29)); // at any moment of a sleep
        arrival = std::chrono::duration<double>(Clock::now().time_since_epoch()).count();
    }
    comm.noSpinSynchronise(SPIN);
    const double departure = std::chrono::duration<double>(Clock::now().time_since_epoch()).count();
    comm.broadcast(arrival, comm.size() - 1);
    return (departure - arrival) / SLEEP;
}

void run(int argc, char** argv) {
    int rounds = 60;
    double seconds = 10.0;
    std::string json;
    for (int i = 1; i + 1 < argc; ++i) {
        const std::string_view word = argv[i];
        if (word == "--rounds")
            rounds = std::max(1, std::atoi(argv[i + 1]));
        else if (word == "--seconds")
            seconds = std::max(0.1, std::atof(argv[i + 1]));
        else if (word == "--json")
            json = argv[i + 1];
    }
    if (rounds <= 3)
        seconds = std::min(seconds, 1.0); // only to see that it runs
    const MpiBench bench(argc, argv);
    std::map<std::string, unsigned> consumed;
    Machine::getSingleton().startCommunicators(argc, &argv, consumed);
    {
        Communicator comm;
        const double share = measureWait(comm, seconds);
        std::vector<double> delays;
        for (int i = 0; i < rounds; ++i)
            delays.push_back(measureWakeUp(comm, i));
        if (comm.myRank() == 0) {
            const std::string subject = "WaitBench, " + bench.driver();
            std::printf(
                "%s, %u ranks: waiting takes %.2f %% of a core, wake-up after %.2f sleeps (median of %d)\n",
                subject.c_str(), comm.size(), 100.0 * share, getMedian(delays), rounds);
            if (!json.empty())
                BenchHarness::writeJson(json, subject, static_cast<int>(comm.size()), rounds,
                                        {{"noSpinSynchronise", "share of a core", 0.0, share},
                                         {"noSpinSynchronise", "wake-up in sleeps",
                                          getMedian(delays) * SLEEP * 1e9, getMedian(delays)}});
        }
    }
    Machine::getSingleton().stopCommunicators();
}

} // namespace

int main(int argc, char** argv) {
    try {
        run(argc, argv);
    } catch (const std::exception& error) {
        std::fprintf(stderr, "WaitBench: %s\n", error.what());
        return EXIT_FAILURE;
    }
    return EXIT_SUCCESS;
}
