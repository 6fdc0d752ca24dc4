#include "machine/reports/ProfileSpans.h"

#include "machine/Communicator.h"
#include "machine/MachineGround.h"
#include "machine/reports/CommandBill.h"
#include "machine/reports/ProfileNumbers.h"

#include "kernel/Properties.h"

#include <algorithm>
#include <vector>

namespace {

using Cost = CommandMeter::Cost;

std::vector<double> select(const std::vector<Cost>& costs, double Cost::*figure) {
    std::vector<double> values;
    values.reserve(costs.size());
    for (const Cost& cost : costs)
        values.push_back(cost.*figure);
    return values;
}

std::vector<long long> toWhole(const std::vector<double>& values) {
    return {values.begin(), values.end()};
}

} // namespace

Properties ProfileSpans::gather(const Cost& total, double memory) {
    std::vector<Cost> costs{total};
    std::vector<double> memories{memory};
    if (MachineGround::isParallel()) {
        costs = CommandBill::gather(MachineGround::globalCommunicator(), total);
        MachineGround::globalCommunicator().gather(memory, memories, Communicator::masterRank());
    }
    Properties part;
    if (!MachineGround::isSerialOrMaster())
        return part;
    const int digits = ProfileNumbers::countDigits(MachineGround::nProcesses());
    const auto setTimes = [&](const char* key, double Cost::*figure) {
        part.set(key, ProfileNumbers::round(select(costs, figure), digits));
    };
    part.set("seconds", ProfileNumbers::round(std::ranges::max(select(costs, &Cost::wall)), 6));
    setTimes("waiting", &Cost::waiting);
    if (std::ranges::any_of(costs, [](const Cost& cost) { return cost.lent > 0.0; }))
        setTimes("lent", &Cost::lent);
    setTimes("processor", &Cost::processor);
    part.set("memory", toWhole(memories));
    part.set("peakMemory", toWhole(select(costs, &Cost::peakMemory)));
    part.set("messages", toWhole(select(costs, &Cost::messages)));
    part.set("bytes", toWhole(select(costs, &Cost::bytes)));
    return part;
}
