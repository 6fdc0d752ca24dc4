#pragma once

#include "kernel/profile/LiveJob.h"

#include <cstdio>
#include <string>
#include <utility>
#include <vector>

/// A job of any size for tests of the live view: all ranks wait about a third of the time in an all-reduce,
/// except one at half of the ranks that waits little, one that holds much memory, and one that is dead.
namespace LiveRanks {

constexpr unsigned MANY = 100; ///< ranks from which there is a dead one

inline std::vector<LiveRank> make(unsigned ranks) {
    std::vector<LiveRank> list(ranks);
    for (unsigned i = 0; i < ranks; ++i) {
        LiveRank& rank = list[i];
        rank.rank = i;
        rank.pid = static_cast<int>(1000 + i);
        rank.state = i % 8 == 0 ? LiveRank::COMPUTES : LiveRank::WAITS;
        rank.operation = i % 8 == 0 ? "" : "allReduce";
        rank.operationSeconds = i % 8 == 0 ? 0.0 : 0.25;
        rank.processorShare = 0.97;
        rank.waitShare = 0.31 + 0.001 * (i % 5);
        rank.memory = 1LL << 30;
        rank.command = "SolveHeatConduction";
        rank.commandSeconds = 83.0;
        rank.processor = 80.0;
        rank.waiting = 25.0;
        rank.messages = 12000;
        rank.bytes = 5 << 20;
        rank.addedMemory = 100 << 20;
    }
    if (ranks > 2) {
        list[ranks / 2 + ranks / 100].waitShare = 0.02;
        list[ranks * 3 / 4].memory = 3LL << 30;
    }
    if (ranks >= MANY)
        list[ranks / 4].state = LiveRank::DEAD;
    return list;
}

inline LiveJob jobOf(const std::vector<LiveRank>& ranks, unsigned perHost, bool withLists = false) {
    std::vector<LiveHost> hosts;
    for (std::size_t i = 0; i < ranks.size(); i += perHost) {
        char name[24];
        std::snprintf(name, sizeof name, "node%03u", static_cast<unsigned>(i / perHost));
        const auto begin = ranks.begin() + static_cast<std::ptrdiff_t>(i);
        const auto end = ranks.size() - i > perHost ? begin + perHost : ranks.end();
        const std::vector<LiveRank> own(begin, end);
        LiveHost host = LiveHost::fold(name, own, 1.0);
        host.load = 47.9;
        host.processors = 48;
        host.hostMemory = 256LL << 30;
        host.freeMemory = 120LL << 30;
        if (withLists)
            host.list = own;
        hosts.push_back(std::move(host));
    }
    LiveJob job = LiveJob::fold(std::move(hosts));
    job.isListed = withLists;
    return job;
}

} // namespace LiveRanks
