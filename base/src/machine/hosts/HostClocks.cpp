#include "machine/hosts/HostClocks.h"

#include "machine/Communicator.h"
#include "machine/MachineGround.h"
#include "machine/MachineHost.h"
#include "machine/MpiCore.h"
#include "machine/messages/MessageTags.h"
#include "machine/messages/OperationRecord.h"

#include "mpiwrapper/OxmMpi.h"
#include "platform/TickClock.h"

#include <algorithm>
#include <cstddef>
#include <limits>
#include <map>
#include <mutex>
#include <string>
#include <utility>

using Platform::TickClock;

namespace {

constexpr MessageOperation MEASURE{"HostClocks::measure"};
/// The fastest exchange counts. When ENOUGH of them were nearly as fast, more bring no better one. Where they
/// are slow, for example since ranks share a processor, the time is limited.
constexpr int LEAST_EXCHANGES = 20;
constexpr int MOST_EXCHANGES = 100;
constexpr int ENOUGH = 5;
constexpr double TIME = 0.02; ///< [s]
/// A host measures against one that has been measured before, and serves so many others one after the other:
/// up to 65 hosts all measure against the first. An exchange takes some 30 us between hosts, so that a stage
/// takes 64 * 20 * 30 us = 40 ms, and there are two of them up to 4161 hosts. With each stage the tolerance
/// grows by half of a round trip.
constexpr std::size_t FAN_OUT = 64;

struct Points {
    std::mutex mutex;
    std::vector<HostClocks::Point> list;
};

Points& points() {
    static auto* const points = new Points; // threads may read it to the very end of the process
    return *points;
}

std::uint64_t lastMeasurement = 0; ///< [ticks]; 0: none

/// The first rank of each host, rank 0 first, else in ascending order. The same on all ranks.
const std::vector<unsigned>& getFirstRanks() {
    static const std::vector<unsigned> ranks = [] {
        std::map<std::string, unsigned> firstOfHost;
        for (const auto& [host, process] : MachineGround::getHost().getHostPidMap()) {
            const auto entry = firstOfHost.try_emplace(host, process.second).first;
            entry->second = std::min(entry->second, process.second);
        }
        std::vector<unsigned> first;
        first.reserve(firstOfHost.size());
        for (const auto& each : firstOfHost)
            first.push_back(each.second);
        std::sort(first.begin(), first.end());
        return first;
    }();
    return ranks;
}

/// The answer of a host: the time on the first host, as far as it knows it.
struct Answer {
    std::uint64_t master = 0;    ///< [ticks of the first host]
    std::uint64_t tolerance = 0; ///< [ns]
    double rate = 0.0;           ///< ticks of the first host in a second
};

/// The knowledge of a host at the moment of a measurement.
struct Knowledge {
    HostClocks::Point point; ///< on the first host equal numbers
    double rate = 0.0;       ///< of the first host
};

std::uint64_t toNanoseconds(std::uint64_t ticks) {
    return static_cast<std::uint64_t>(TickClock::toSeconds(ticks) * 1e9);
}

std::uint64_t fromNanoseconds(std::uint64_t nanoseconds) {
    return static_cast<std::uint64_t>(static_cast<double>(nanoseconds) * 1e-9 *
                                      TickClock::getTicksPerSecond());
}

/// The messages of one measurement; they aren't counted in the statistics of the user's messages.
class Exchange {
public:
    Exchange(Communicator& ranks, unsigned other)
        : _handle(ranks.handle()), _other(static_cast<int>(other)) {}

    /// The fastest of some exchanges with a host that serves.
    Knowledge measure() const {
        Knowledge best;
        std::uint64_t shortest = std::numeric_limits<std::uint64_t>::max();
        const std::uint64_t first = TickClock::read();
        int fast = 0;
        for (int i = 0; i < MOST_EXCHANGES && (i < LEAST_EXCHANGES || fast < ENOUGH); ++i) {
            if (i > ENOUGH && TickClock::toSeconds(TickClock::read() - first) > TIME)
                break;
            const std::uint64_t begin = TickClock::read();
            char question = 1;
            send(&question, sizeof question);
            Answer answer;
            receive(&answer, sizeof answer);
            const std::uint64_t roundTrip = TickClock::read() - begin;
            const bool isFaster = roundTrip < shortest - shortest / 8;
            fast = isFaster ? 1 : fast + (roundTrip / 9 * 8 < shortest ? 1 : 0);
            if (roundTrip >= shortest)
                continue;
            shortest = roundTrip;
            const std::uint64_t tolerance = roundTrip / 2 + 1 + fromNanoseconds(answer.tolerance);
            best = {{begin + roundTrip / 2, answer.master, tolerance}, answer.rate};
        }
        char done = 0;
        send(&done, sizeof done);
        return best;
    }
    /// Until the other host has enough. @param known  of a moment ago
    void serve(const Knowledge& known) const {
        const HostClocks::Point& base = known.point;
        const double speed = known.rate / TickClock::getTicksPerSecond();
        for (char question = 1;;) {
            receive(&question, sizeof question);
            if (question == 0)
                return;
            const double since = static_cast<double>(TickClock::read() - base.own);
            Answer answer{base.master + static_cast<std::uint64_t>(since * speed),
                          toNanoseconds(base.tolerance), known.rate};
            send(&answer, sizeof answer);
        }
    }

private:
    void send(void* data, std::size_t size) const {
        MpiCore::handleError(
            OXM_MPI_Send(data, static_cast<int>(size), OXM_MPI_BYTE, _other, MessageTags::CLOCKS, _handle));
    }
    void receive(void* data, std::size_t size) const {
        OXM_MPI_Status_struct status{};
        MpiCore::handleError(OXM_MPI_Recv(data, static_cast<int>(size), OXM_MPI_BYTE, _other,
                                          MessageTags::CLOCKS, _handle, &status),
                             status);
    }

    int _handle;
    int _other;
};

void keep(const HostClocks::Point& point) {
    Points& all = points();
    const std::lock_guard lock(all.mutex);
    if (all.list.size() == HostClocks::MAX_POINTS)
        all.list.erase(all.list.begin() + 1);
    all.list.push_back(point);
}

} // namespace

bool HostClocks::isDue() {
    return MachineGround::isMaster() && getFirstRanks().size() > 1 &&
           (lastMeasurement == 0 || TickClock::toSeconds(TickClock::read() - lastMeasurement) > INTERVAL);
}

void HostClocks::measure(Communicator& ranks) {
    const std::vector<unsigned>& hosts = getFirstRanks();
    lastMeasurement = TickClock::read();
    const auto found = std::find(hosts.begin(), hosts.end(), ranks.myRank());
    if (hosts.size() == 1 || found == hosts.end())
        return;
    const OperationRecord::Composite recorded(MEASURE, 0);
    const auto own = static_cast<std::size_t>(found - hosts.begin());
    Knowledge known{{lastMeasurement, lastMeasurement, 0}, TickClock::getTicksPerSecond()};
    if (own != 0) {
        known = Exchange(ranks, hosts[(own - 1) / FAN_OUT]).measure();
        keep(known.point);
    }
    const std::size_t end = std::min((own + 1) * FAN_OUT + 1, hosts.size());
    for (std::size_t child = own * FAN_OUT + 1; child < end; ++child)
        Exchange(ranks, hosts[child]).serve(known);
}

std::vector<HostClocks::Point> HostClocks::getPoints() {
    Points& all = points();
    const std::lock_guard lock(all.mutex);
    return all.list;
}
