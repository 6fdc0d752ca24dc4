#pragma once

#include "machine/MachineExport.h"

#include <map>
#include <memory>
#include <string>
#include <vector>

class Communicator;
class MpiStressTest;
class Properties;

/// Measures patterns of messages for each of some lengths: average time and bandwidth. The numbers that count
/// are those of the master. Main thread.
class ORVEX_MACHINE_EXPORT MpiStressTester {
public:
    /// @param nSamples        repetitions of a pattern for each length, at least 1
    /// @param messageLengths  [bytes], rounded down to words of 4 bytes
    MpiStressTester(Communicator& communicator, unsigned nSamples,
                    const std::vector<unsigned>& messageLengths);
    ~MpiStressTester();
    MpiStressTester(const MpiStressTester&) = delete;
    MpiStressTester& operator=(const MpiStressTester&) = delete;

    /// Runs the tests of these names, all of them when there are none, and shows the progress on the standard
    /// output. A client can cancel it. A pattern that takes long is repeated less often. Collective over the
    /// communicator, with the same names.
    /// @throw InputError on all ranks, before any allocates, when a host has no room for the messages
    void runStressTests(const std::vector<std::string>& names, Properties& results);

private:
    void registerTest(std::unique_ptr<MpiStressTest> test);
    void tellUnknown(const std::string& name) const;

    Communicator* _communicator;
    unsigned _nSamples;
    std::vector<unsigned> _messageLengths;
    std::map<std::string, std::unique_ptr<MpiStressTest>> _tests;
};
