#pragma once

#include "machine/reports/MpiStressTest.h"

/// A pattern of all ranks: the measurements of one length after the other.
class CollectiveStressTest : public MpiStressTest {
public:
    using Transfer = void (*)(Communicator&, unsigned* data, std::size_t count, unsigned root);
    /// GLOBAL: the master's time. EXCHANGE: that of the slowest rank, and all ranks send to all others.
    enum Kind { GLOBAL, EXCHANGE };

    CollectiveStressTest(std::string name, Kind kind, Transfer transfer, Communicator& communicator,
                         unsigned nSamples, const std::vector<unsigned>& messageLengths);
    Properties run() override;

private:
    Measurement measure(unsigned bytes, double latency);

    Kind _kind;
    Transfer _transfer;
};
