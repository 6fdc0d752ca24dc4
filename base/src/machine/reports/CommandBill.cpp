#include "machine/reports/CommandBill.h"

#include "machine/Communicator.h"

#include <algorithm>
#include <array>
#include <bit>

namespace {

using Cost = CommandMeter::Cost;
constexpr std::size_t NUMBER_FIGURES = sizeof(Cost) / sizeof(double);
using Record = std::array<double, NUMBER_FIGURES>;

template <class Value>
Properties fold(const std::vector<Cost>& costs, Value&& value) {
    std::size_t least = 0;
    std::size_t most = 0;
    double total = 0.0;
    for (std::size_t rank = 0; rank < costs.size(); ++rank) {
        const double here = value(costs[rank]);
        total += here;
        if (here < value(costs[least]))
            least = rank;
        if (here > value(costs[most]))
            most = rank;
    }
    const double mean = total / static_cast<double>(costs.size());
    Properties figure;
    figure.set("total", total);
    figure.set("min", value(costs[least]));
    figure.set("minRank", static_cast<unsigned>(least));
    figure.set("mean", mean);
    figure.set("max", value(costs[most]));
    figure.set("maxRank", static_cast<unsigned>(most));
    figure.set("imbalance", mean > 0.0 ? value(costs[most]) / mean : 1.0);
    return figure;
}

double shareOf(const Cost& cost) {
    return cost.wall > 0.0 ? std::min(cost.waiting / cost.wall, 1.0) : 0.0;
}

} // namespace

std::vector<CommandMeter::Cost> CommandBill::gather(Communicator& communicator, const Cost& mine) {
    const auto record = std::bit_cast<Record>(mine);
    std::vector<Record> records;
    communicator.gather(record, records, Communicator::masterRank());
    std::vector<Cost> costs;
    costs.reserve(records.size());
    for (const Record& each : records)
        costs.push_back(std::bit_cast<Cost>(each));
    return costs;
}

Properties CommandBill::describe(const std::vector<Cost>& costs) {
    Properties bill;
    bill.set("ranks", static_cast<unsigned>(costs.size()));
    if (costs.empty())
        return bill;
    const auto longest = std::ranges::max_element(costs, {}, &Cost::wall);
    bill.set("wall", longest->wall);
    bill.set("processor", fold(costs, [](const Cost& cost) { return cost.processor; }));
    bill.set("waiting", fold(costs, [](const Cost& cost) { return cost.waiting; }));
    bill.set("waitingShare", fold(costs, shareOf));
    if (std::ranges::any_of(costs, [](const Cost& cost) { return cost.lent > 0.0; }))
        bill.set("lent", fold(costs, [](const Cost& cost) { return cost.lent; }));
    bill.set("peakMemory", fold(costs, [](const Cost& cost) { return cost.peakMemory; }));
    bill.set("addedMemory", fold(costs, [](const Cost& cost) { return cost.addedMemory; }));
    bill.set("messages", fold(costs, [](const Cost& cost) { return cost.messages; }));
    bill.set("bytes", fold(costs, [](const Cost& cost) { return cost.bytes; }));
    return bill;
}
