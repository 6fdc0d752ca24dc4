#include "harness/MachineBench.h"

#include "machine/Communicator.h"
#include "machine/CpuTopology.h"
#include "machine/MachineHost.h"
#include "machine/RequestStack.h"

#include "platform/Time.h"

#include <string>
#include <vector>

// The cost of the start of a job: the ranks of a host learn their hardware, each by itself or one for all,
// and build the whole view of the hosts.

class StartBench {
public:
    StartBench(const MpiBench&, BenchHarness& harness) : _harness(harness) {}

    void addAll() {
        // A start goes on when all are through, so each case ends with that: with sleeps, since a wait that
        // spins would cost more than all the rest where ranks share processors.
        _harness.addReference("hardware of a host", "each rank looks", [this](int n) {
            for (int i = 0; i < n; ++i) {
                const CpuTopology topology;
                awaitAll();
            }
        });
        _harness.addCase("one looks for all", [this](int n) {
            for (int i = 0; i < n; ++i) {
                MachineHost::shareTopology(_host);
                awaitAll();
            }
        });
        _harness.addCase("the end alone", [this](int n) {
            for (int i = 0; i < n; ++i)
                awaitAll();
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
    void awaitAll() {
        constexpr double sleep = 2e-5; // [s]
        std::vector<char> words(_host.size());
        MpiCore::RequestStack requests;
        if (_host.myRank() != 0)
            _host.iSend(words.data(), 1, 0, requests);
        for (unsigned rank = 1; _host.myRank() == 0 && rank < _host.size(); ++rank)
            _host.iRecv(&words[rank], 1, rank, requests);
        while (!_host.test(requests))
            Platform::time().sleep(sleep);
        std::string word;
        _host.noSpinBroadcast(word);
    }

    BenchHarness& _harness;
    Communicator& _host = Machine::getHost().getIntraHostComm();
};

int main(int argc, char** argv) {
    return runMachineBench<StartBench>("StartBench", argc, argv);
}
