#include "kernel/profile/LiveJob.h"

#include "kernel/profile/LiveKeys.h"

#include <utility>

LiveJob LiveJob::fold(std::vector<LiveHost> hosts) {
    LiveJob job;
    for (const LiveHost& host : hosts)
        job.total.add(host);
    job.hosts = std::move(hosts);
    return job;
}

const LiveHost* LiveJob::findHostOf(unsigned rank, LiveFigure LiveHost::*figure, bool ofMax) const {
    for (const LiveHost& host : hosts) {
        const LiveFigure& each = host.*figure;
        if (each.count > 0 && (ofMax ? each.maxRank : each.minRank) == rank)
            return &host;
    }
    return nullptr;
}

Properties LiveJob::toProperties() const {
    Properties properties;
    properties.set("total", total.toProperties());
    if (const std::optional<unsigned> slowest = total.getSlowest()) {
        Properties rank;
        rank.set("rank", *slowest);
        if (const LiveHost* host = findHostOf(*slowest, &LiveHost::waitShare, false))
            rank.set("host", host->name);
        rank.set("waitShare", total.waitShare.min);
        rank.set("othersWaitShare", total.waitShare.meanWithoutMin());
        properties.set("slowest", rank);
    }
    if (total.memory.count > 0) {
        Properties rank;
        rank.set("rank", total.memory.maxRank);
        if (const LiveHost* host = findHostOf(total.memory.maxRank, &LiveHost::memory, true))
            rank.set("host", host->name);
        rank.set("memory", total.memory.max);
        properties.set("mostMemory", rank);
    }
    std::vector<Properties> list;
    list.reserve(hosts.size());
    for (const LiveHost& host : hosts)
        list.push_back(host.toProperties());
    properties.set("hosts", list);
    properties.set("isListed", isListed);
    return properties;
}

LiveJob LiveJob::fromProperties(const Properties& properties) {
    std::vector<Properties> list;
    LiveKeys::read(properties, "hosts", list);
    std::vector<LiveHost> hosts;
    hosts.reserve(list.size());
    for (const Properties& host : list)
        hosts.push_back(LiveHost::fromProperties(host));
    LiveJob job = fold(std::move(hosts));
    LiveKeys::read(properties, "isListed", job.isListed);
    return job;
}
