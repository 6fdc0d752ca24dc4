#include "machine/reports/ProfileCalls.h"

#include "machine/Communicator.h"
#include "machine/MachineGround.h"
#include "machine/TimeLoggerManager.h"
#include "machine/reports/CallPaths.h"
#include "machine/reports/NameUnion.h"
#include "machine/reports/ProfileNumbers.h"

#include "kernel/Properties.h"

#include <algorithm>
#include <map>
#include <numeric>
#include <set>
#include <unordered_map>

namespace {

constexpr unsigned MASTER = Communicator::_master;

struct Reading {
    std::uint64_t count = 0;
    double seconds = 0.0;
    bool isOpen = false;
};

/// The calls of this rank by key.
std::map<std::string, Reading> readCalls(const TimeLoggerManager* manager) {
    std::map<std::string, Reading> calls;
    if (!manager)
        return calls;
    const CallPaths& paths = manager->getCallPaths();
    for (unsigned i = 0; i < paths.getPaths().size(); ++i) {
        const CallPaths::Path& path = paths.getPaths()[i];
        calls[paths.getKey(i)] = {path.count, paths.getSeconds(path), path.isOpen};
    }
    return calls;
}

std::vector<std::string> uniteKeys(const std::map<std::string, Reading>& calls) {
    std::set<std::string> keys;
    for (const auto& [key, reading] : calls)
        keys.insert(key);
    if (MachineGround::isParallel())
        keys = NameUnion::unite(MachineGround::globalCommunicator(), std::move(keys));
    return {keys.begin(), keys.end()};
}

Reading find(const std::map<std::string, Reading>& calls, const std::string& key) {
    const auto found = calls.find(key);
    return found == calls.end() ? Reading() : found->second;
}

/// The values of all ranks on the serial or master process.
template <class T>
std::vector<T> gatherRanks(const T& value) {
    std::vector<T> all{value};
    if (MachineGround::isParallel())
        MachineGround::globalCommunicator().gather(value, all, MASTER);
    return all;
}

template <class T>
void reduceOverJob(T&& values, Communicator::Operation operation) {
    if (MachineGround::isParallel())
        MachineGround::globalCommunicator().allReduce(values, operation);
}

/// The largest sums; of equal ones the first keys, so that a parent comes before its children.
std::vector<bool> findLargest(const std::vector<double>& sums, std::size_t limit) {
    std::vector<std::size_t> order(sums.size());
    std::iota(order.begin(), order.end(), std::size_t{0});
    std::ranges::stable_sort(order, [&](std::size_t a, std::size_t b) { return sums[a] > sums[b]; });
    std::vector<bool> isLarge(sums.size(), false);
    for (std::size_t i = 0; i < std::min(limit, order.size()); ++i)
        isLarge[order[i]] = true;
    return isLarge;
}

} // namespace

std::vector<ProfileCalls::Call> ProfileCalls::choose(const std::vector<std::string>& keys,
                                                     const std::vector<double>& sums, std::size_t limit) {
    const std::vector<bool> isLarge = findLargest(sums, limit);
    std::unordered_map<std::string, int> places;
    std::vector<Call> calls;
    for (std::size_t i = 0; i < keys.size(); ++i) {
        if (!isLarge[i])
            continue;
        const std::size_t end = keys[i].rfind(CallPaths::SEPARATOR);
        Call call{i, keys[i].substr(end == std::string::npos ? 0 : end + 1), -1, end != 0};
        if (end != std::string::npos && end != 0) {
            const auto parent = places.find(keys[i].substr(0, end));
            if (parent == places.end())
                continue;
            call.parent = parent->second;
        }
        places.emplace(keys[i], static_cast<int>(calls.size()));
        calls.push_back(std::move(call));
    }
    return calls;
}

Properties ProfileCalls::gather(const TimeLoggerManager* manager, std::size_t maxNumbers) {
    const std::map<std::string, Reading> mine = readCalls(manager);
    const double seconds = manager ? manager->getSampledTime() : 0.0;
    int isOn = manager && manager->isOn() ? 1 : 0;
    reduceOverJob(isOn, Communicator::MIN);
    const std::vector<std::string> keys = uniteKeys(mine);
    std::vector<double> sums;
    std::vector<int> areOpen;
    for (const std::string& key : keys) {
        const Reading reading = find(mine, key);
        sums.push_back(reading.seconds);
        areOpen.push_back(reading.isOpen ? 1 : 0);
    }
    reduceOverJob(sums, Communicator::SUM);
    if (MachineGround::isParallel()) // sums may differ in the last bit, and all ranks need one choice
        MachineGround::globalCommunicator().broadcast(sums, MASTER);
    reduceOverJob(areOpen, Communicator::MAX);

    const unsigned ranks = MachineGround::nProcesses();
    const int digits = ProfileNumbers::countDigits(ranks);
    const std::vector<Call> calls = choose(keys, sums, maxNumbers / ranks);
    std::vector<Properties> list;
    for (const Call& call : calls) {
        const Reading reading = find(mine, keys[call.key]);
        const std::vector<long long> counts = gatherRanks(static_cast<long long>(reading.count));
        const std::vector<double> times = gatherRanks(reading.seconds);
        if (!MachineGround::isSerialOrMaster())
            continue;
        Properties& entry = list.emplace_back();
        entry.set("name", call.name);
        entry.set("parent", call.parent);
        entry.set("count", counts);
        entry.set("seconds", ProfileNumbers::round(times, digits));
        entry.set("open", areOpen[call.key] != 0);
        if (!call.isPlaced)
            entry.set("unplaced", true);
    }
    Properties part;
    if (!MachineGround::isSerialOrMaster())
        return part;
    part.set("on", isOn != 0);
    part.set("seconds", ProfileNumbers::round(seconds, digits));
    part.set("list", list);
    part.set("left", keys.size() - calls.size());
    return part;
}
