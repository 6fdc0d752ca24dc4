// A sum over all points of a job, by few processes with many threads: hybrid work in a program of its own.
// In a server the same lines stand in a command.
//
//   mpirun -np 4 hybrid_sum -mpi openmpi4        or        hybrid_sum -s

#include "machine/Communicator.h"
#include "machine/HybridMpiThreadContext.h"
#include "machine/Machine.h"

#include <tbb/blocked_range.h>
#include <tbb/parallel_reduce.h>

#include <cmath>
#include <exception>
#include <functional>
#include <iostream>
#include <map>
#include <string>

namespace {

/// The integral of 4 / (1 + x^2) over the part of [0, 1] that belongs to one of `processes` processes.
double integrate(unsigned process, unsigned processes) {
    constexpr unsigned POINTS = 40000000;
    const double step = 1.0 / POINTS;
    const unsigned first = static_cast<unsigned>(1ull * POINTS * process / processes);
    const unsigned end = static_cast<unsigned>(1ull * POINTS * (process + 1) / processes);
    return tbb::parallel_reduce(
        tbb::blocked_range<unsigned>(first, end), 0.0,
        [step](const tbb::blocked_range<unsigned>& range, double sum) {
            for (unsigned i = range.begin(); i != range.end(); ++i)
                sum += 4.0 * step / (1.0 + std::pow((i + 0.5) * step, 2));
            return sum;
        },
        std::plus<>());
}

} // namespace

int main(int argc, char** argv) {
    std::map<std::string, unsigned> consumed;
    try {
        Machine& machine = Machine::getSingleton();
        machine.startCommunicators(argc, &argv, consumed);
        machine.startSharedMemory();
        HybridMpiThreadContext::execute(Machine::HOST_SCOPE, [](const HybridMachine& hybrid) {
            // Here is one process of each host. TBB has a thread for each rank of the host.
            Communicator* const hosts = hybrid.isParallel() ? &hybrid.getCommunicator() : nullptr;
            double sum = integrate(hosts ? hosts->myRank() : 0, hosts ? hosts->size() : 1);
            if (hosts)
                hosts->allReduce(sum, Communicator::SUM);
            if (Machine::isSerialOrMaster())
                std::cout << "pi = " << sum << " with " << hybrid.nLocalCore() << " threads on each of "
                          << (hosts ? hosts->size() : 1) << " processes\n";
        });
        machine.stopCommunicators();
        return 0;
    } catch (const std::exception& error) {
        std::cerr << "hybrid_sum: " << error.what() << "\n";
        return 2;
    }
}
