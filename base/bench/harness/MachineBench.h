#pragma once

#include "MpiBench.h"

#include "machine/Machine.h"

#include <cstdio>
#include <cstdlib>
#include <exception>
#include <map>
#include <string>

/// The main() of a benchmark that wants the machine with its communicators. `Cases` is made from the MpiBench
/// and the harness, adds its cases in addAll(), and lives until they have run.
template <class Cases>
int runMachineBench(const std::string& program, int argc, char** argv) {
    try {
        const MpiBench bench(argc, argv);
        std::map<std::string, unsigned> consumed;
        Machine::getSingleton().startCommunicators(argc, &argv, consumed);
        {
            BenchHarness harness = bench.makeHarness(program);
            Cases cases(bench, harness);
            cases.addAll();
            bench.report(harness);
        }
        Machine::getSingleton().stopCommunicators();
    } catch (const std::exception& error) {
        std::fprintf(stderr, "%s: %s\n", program.c_str(), error.what());
        return EXIT_FAILURE;
    }
    return EXIT_SUCCESS;
}
