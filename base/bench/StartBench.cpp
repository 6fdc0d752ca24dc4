#include "harness/MpiBench.h"

#include "machine/Communicator.h"
#include "machine/CpuTopology.h"
#include "machine/Machine.h"
#include "machine/MachineHost.h"

#include <cstdio>
#include <cstdlib>
#include <exception>
#include <map>
#include <string>

// How the ranks of a host learn their hardware at the start of a job: each by itself, or one for all.

namespace {

void shareTopology(Communicator& host) {
    std::string text;
    if (host.myRank() == 0)
        text = CpuTopology().toString();
    host.broadcast(text, 0);
    if (host.myRank() != 0)
        const CpuTopology topology(text);
}

void run(int argc, char** argv) {
    MpiBench bench(argc, argv);
    std::map<std::string, unsigned> consumed;
    Machine::getSingleton().startCommunicators(argc, &argv, consumed);
    {
        BenchHarness harness = bench.makeHarness("StartBench");
        Communicator& host = Machine::getHost().getIntraHostComm();
        harness.addReference("hardware of a host", "each rank looks", [&host](int n) {
            for (int i = 0; i < n; ++i) {
                const CpuTopology topology;
                host.synchronise(); // a start goes on when all are through
            }
        });
        harness.addCase("one looks for all", [&host](int n) {
            for (int i = 0; i < n; ++i) {
                shareTopology(host);
                host.synchronise();
            }
        });
        harness.addReference("view of the job", "names and process identifiers", [&host](int n) {
            for (int i = 0; i < n; ++i) {
                std::vector<std::string> names;
                std::vector<unsigned> pids;
                host.allGather(host.myName(), names);
                host.allGather(host.myRank(), pids);
            }
        });
        harness.addCase("MachineHost", [](int n) {
            for (int i = 0; i < n; ++i)
                const MachineHost view;
        });
        bench.report(harness);
    }
    Machine::getSingleton().stopCommunicators();
}

} // namespace

int main(int argc, char** argv) {
    try {
        run(argc, argv);
    } catch (const std::exception& error) {
        std::fprintf(stderr, "StartBench: %s\n", error.what());
        return EXIT_FAILURE;
    }
    return EXIT_SUCCESS;
}
