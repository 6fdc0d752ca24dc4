// Heat conduction along a rod that is cut into one piece for each rank: a parallel program without a server.
//
//   mpirun -np 4 heat_rod -mpi openmpi4        or        heat_rod -s

#include "machine/Communicator.h"
#include "machine/Machine.h"

#include <cmath>
#include <exception>
#include <iostream>
#include <map>
#include <string>
#include <utility>
#include <vector>

namespace {

constexpr unsigned POINTS_PER_RANK = 8;
constexpr double LEFT = 0.0, RIGHT = 1.0; // the temperatures at the ends

/// Fills the points at both ends of a piece with the values of the neighbours.
void exchange(std::vector<double>& piece, Communicator& ranks) {
    const unsigned rank = ranks.myRank();
    const std::size_t last = piece.size() - 2;
    if (rank + 1 < ranks.size())
        ranks.sendrecv(&piece[last], 1, rank + 1, &piece[last + 1], 1, rank + 1);
    if (rank > 0)
        ranks.sendrecv(&piece[1], 1, rank - 1, &piece[0], 1, rank - 1);
}

/// Relaxes until no point changes by `tolerance` or more. @return the number of sweeps
unsigned solve(std::vector<double>& piece, double tolerance) {
    std::vector<double> next = piece;
    for (unsigned sweep = 1;; ++sweep) {
        if (Machine::isParallel())
            exchange(piece, Machine::globalCommunicator());
        double change = 0.0;
        for (std::size_t i = 1; i + 1 < piece.size(); ++i) {
            next[i] = 0.5 * (piece[i - 1] + piece[i + 1]);
            change = std::fmax(change, std::fabs(next[i] - piece[i]));
        }
        for (std::size_t i = 1; i + 1 < piece.size(); ++i)
            piece[i] = next[i];
        if (Machine::isParallel())
            Machine::globalCommunicator().allReduce(change, Communicator::MAX);
        if (change < tolerance)
            return sweep;
    }
}

/// Returns the largest distance of any rank's values from the steady temperature, which is a straight line.
double largestError(const std::vector<double>& piece) {
    const unsigned first = Machine::getPartitionId() * POINTS_PER_RANK;
    const double step = (RIGHT - LEFT) / (Machine::nProcesses() * POINTS_PER_RANK + 1);
    double error = 0.0;
    for (unsigned i = 1; i <= POINTS_PER_RANK; ++i)
        error = std::fmax(error, std::fabs(piece[i] - (LEFT + (first + i) * step)));
    if (Machine::isParallel())
        Machine::globalCommunicator().allReduce(error, Communicator::MAX);
    return error;
}

} // namespace

int main(int argc, char** argv) {
    std::map<std::string, unsigned> consumed;
    try {
        Machine& machine = Machine::getSingleton();
        machine.startCommunicators(argc, &argv, consumed);
        std::vector<double> piece(POINTS_PER_RANK + 2, LEFT);
        if (Machine::getPartitionId() + 1 == Machine::nProcesses())
            piece.back() = RIGHT;
        const unsigned sweeps = solve(piece, 1e-9);
        const double error = largestError(piece);
        if (Machine::isSerial() || Machine::isMaster())
            std::cout << Machine::nProcesses() << " ranks, " << sweeps << " sweeps, largest error " << error
                      << "\n";
        machine.stopCommunicators();
        return error < 1e-5 ? 0 : 1;
    } catch (const std::exception& error) {
        std::cerr << "heat_rod: " << error.what() << "\n";
        return 2;
    }
}
