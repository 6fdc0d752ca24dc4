#pragma once

#include "machine/reports/MpiStressTest.h"

class Task;

/// Two ranks send to each other, one pair after the other.
class PairStressTest : public MpiStressTest {
public:
    using MpiStressTest::MpiStressTest;
    Properties run() override;

private:
    Properties runPair(unsigned from, unsigned to, Task& task, double progress);
    Measurement measure(unsigned bytes, double latency, unsigned from, unsigned to);
    void bringToMaster(std::vector<Measurement>& measurements, unsigned source);
};
