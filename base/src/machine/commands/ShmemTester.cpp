#include "machine/commands/ShmemTester.h"

#include "machine/Communicator.h"
#include "machine/Machine.h"
#include "machine/MpiCore.h"
#include "machine/ShmemWindow.h"

#include "kernel/Raise.h"

#include <iomanip>
#include <iostream>
#include <sstream>

namespace {

/// The output of this rank reaches the console while this lives. Made by all ranks together.
class WorkerOutput {
public:
    WorkerOutput() : _isOnAnyway(Machine::getSingleton().slaveCoutEnabled()) {
        Machine::getSingleton().enableSlaveCout(true);
    }
    ~WorkerOutput() {
        if (!_isOnAnyway) // a worker's is off as a rule, the master's is on
            Machine::getSingleton().enableSlaveCout(false);
    }
    WorkerOutput(const WorkerOutput&) = delete;
    WorkerOutput& operator=(const WorkerOutput&) = delete;

private:
    bool _isOnAnyway;
};

} // namespace

void ShmemTester::runTest() {
    if (!Machine::isParallel() || !MpiCore::hasMpiSharedMemory())
        return;
    constexpr double GOLDEN_RATIO = 1.61803398874;
    const unsigned rank = Machine::globalCommunicator().myRank();
    Communicator& node = Machine::sharedMemCommunicator(Machine::HOST_SCOPE);
    ShmemWindow<double> data(10, node);
    data.fence();
    if (node.myRank() == 0) {
        data[0] = rank;
        data[1] = rank == 0 ? 3.14159 : 2.71828;
        data[2] = GOLDEN_RATIO;
    }
    data.fence();
    const WorkerOutput everyRank;
    std::ostringstream line;
    line << std::right << "My global rank = " << std::setw(2) << rank
         << "; Global rank of node master = " << std::setw(2) << static_cast<int>(data[0])
         << "; Shared data = " << std::setprecision(6) << data[1] << "\n";
    std::cout << line.str() << std::flush;
    ORVEX_ASSERT(data[2] == GOLDEN_RATIO, "Error in communication via shared memory");
}
