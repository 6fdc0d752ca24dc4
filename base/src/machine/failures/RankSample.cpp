#include "machine/failures/RankSample.h"

#include <algorithm>

namespace {

constexpr double BUSY = 0.05; ///< of a processor: a rank that works

} // namespace

LiveRank RankSample::toLive(const RankSample* before, double seconds) const {
    LiveRank live;
    live.rank = rank;
    live.pid = pid;
    live.state = state;
    if (!live.isAlive())
        return live;
    live.memory = memory;
    const bool isSame = before && before->pid == pid && before->state != LiveRank::DEAD && seconds > 0.0;
    if (isSame)
        live.processorShare = std::max(processorSeconds - before->processorSeconds, 0.0) / seconds;
    if (isSame && hasProfile && before->hasProfile)
        live.waitShare = std::clamp((waitSeconds - before->waitSeconds) / seconds, 0.0, 1.0);
    if (state == LiveRank::SLEEPS && live.processorShare > BUSY)
        live.state =
            LiveRank::COMPUTES; // it was seen between two pieces of work, or others of its threads work
    if (!hasProfile)
        return live;
    if (isInside) {
        if (state != LiveRank::STOPPED)
            live.state = LiveRank::WAITS;
        live.operation = operation;
        live.operationSeconds = operationSeconds;
    }
    if (!command)
        return live;
    live.command = command->name;
    live.commandSeconds = command->seconds;
    live.processor = std::max(processorSeconds - command->processorSeconds, 0.0);
    live.waiting = command->waitSeconds;
    live.messages = command->operations;
    live.bytes = command->bytes;
    live.addedMemory = memory - command->memory;
    return live;
}
