#include "parallel/harness/ParallelTest.h"

#include "machine/Machine.h"

#include <map>
#include <string>

// The message layer of tests that want the machine with its communicators and hosts.

void ParallelTest::startMessageLayer(int& argc, char**& argv) {
    std::map<std::string, unsigned> consumed;
    Machine::getSingleton().startCommunicators(argc, &argv, consumed);
}

void ParallelTest::stopMessageLayer() {
    Machine::getSingleton().stopCommunicators();
}
