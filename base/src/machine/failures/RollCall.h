#pragma once

#include "machine/failures/RankStanding.h"

#include <chrono>
#include <cstdint>
#include <memory>
#include <mutex>
#include <vector>

class ParallelErrorHandler;
class Properties;

namespace XmlRpc {
class XmlRpcServerMethod;
}

/// Asks each rank through the error channel where its main thread stands. It works while that thread hangs.
///
/// A rank that doesn't answer is looked at by another rank on its host, or by the master: it may be stopped
/// or dead. A serial process, which has no channel, looks at itself.
class RollCall {
public:
    /// @param channel  gets the methods of this object, and must not have started. Borrowed; ends before this
    ///                 object. Null in a serial process
    explicit RollCall(ParallelErrorHandler* channel);
    RollCall(const RollCall&) = delete;
    RollCall& operator=(const RollCall&) = delete;
    ~RollCall();

    /// Notes whether the main thread has moved. Called about once a second, for the time of a standstill.
    void tick();
    /// For how long the main thread of this rank hasn't moved [s]. Any thread.
    double getStillSeconds();
    /// Of this rank. Not the main thread. @param withStack  interrupts the main thread for a moment
    RankStanding lookHere(bool withStack);
    /// Of all ranks, in their order. Serial or on the master, any thread except the main and the channel's.
    std::vector<RankStanding> callAll(bool withStacks);
    /// The answer to a client: "text" for people, "ranks", "groups" and "verdict" for programs, and
    /// "seconds", the time that it took. As above.
    /// @param request  "rank": of this rank alone, in full
    /// @throw InputError when there is no such rank
    Properties answer(const Properties& request);

private:
    class WhereCmd;
    class LookCmd;
    using Clock = std::chrono::steady_clock;

    double noteMovement(std::uint64_t generation);
    std::vector<unsigned> askAll(std::vector<RankStanding>& standings, bool withStacks);
    void askWholeHost(std::vector<RankStanding>& standings, const std::vector<unsigned>& ranks) const;
    void lookAtSilent(std::vector<RankStanding>& standings, const std::vector<unsigned>& silent);

    ParallelErrorHandler* const _channel;
    std::vector<std::unique_ptr<XmlRpc::XmlRpcServerMethod>> _methods;
    std::vector<std::string> _hosts; ///< of each rank
    std::vector<int> _pids;          ///< of each rank, on its host
    std::mutex _mutex;               ///< guards the two below
    std::uint64_t _generation = 0;
    Clock::time_point _movedAt = Clock::now();
};
