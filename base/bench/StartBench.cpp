#include "harness/MachineBench.h"

#include "machine/Communicator.h"
#include "machine/CpuTopology.h"
#include "machine/MachineHost.h"

#include <string>
#include <vector>

// What the start of a job costs: how the ranks of a host learn their hardware, each by itself or one for all,
// and what the whole view of the hosts takes.

namespace {

class StartBench {
public:
    StartBench(const MpiBench&, BenchHarness& harness) : _harness(harness) {}

    void addAll() {
        // A start goes on when all are through, so each case ends with that.
        _harness.addReference("hardware of a host", "each rank looks", [this](int n) {
            for (int i = 0; i < n; ++i) {
                const CpuTopology topology;
                _host.synchronise();
            }
        });
        _harness.addCase("one looks for all", [this](int n) {
            for (int i = 0; i < n; ++i) {
                shareTopology();
                _host.synchronise();
            }
        });
        _harness.addReference("view of the job", "names and identifiers", [this](int n) {
            for (int i = 0; i < n; ++i) {
                std::vector<std::string> names;
                std::vector<unsigned> identifiers;
                _host.allGather(_host.myName(), names);
                _host.allGather(_host.myRank(), identifiers);
            }
        });
        _harness.addCase("MachineHost", [](int n) {
            for (int i = 0; i < n; ++i)
                const MachineHost view;
        });
    }

private:
    void shareTopology() {
        std::string text;
        if (_host.myRank() == 0)
            text = CpuTopology().toString();
        _host.broadcast(text, 0);
        if (_host.myRank() != 0)
            const CpuTopology topology(text);
    }

    BenchHarness& _harness;
    Communicator& _host = Machine::getHost().getIntraHostComm();
};

} // namespace

int main(int argc, char** argv) {
    return runMachineBench<StartBench>("StartBench", argc, argv);
}
