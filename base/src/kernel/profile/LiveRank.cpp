#include "kernel/profile/LiveRank.h"

#include "kernel/profile/LiveKeys.h"

namespace {

constexpr std::array NAMES{"computes", "waits", "sleeps", "stopped", "dead", "silent"};
static_assert(NAMES.size() == LiveRank::NUMBER_STATES);

} // namespace

const char* LiveRank::nameOf(State state) {
    return NAMES.at(static_cast<std::size_t>(state));
}

LiveRank::State LiveRank::stateOf(std::string_view name) {
    const auto found = std::find(NAMES.begin(), NAMES.end(), name);
    return found != NAMES.end() ? static_cast<State>(found - NAMES.begin()) : SILENT;
}

Properties LiveRank::toProperties() const {
    Properties properties;
    properties.set("rank", rank);
    properties.set("state", nameOf(state));
    properties.set("pid", pid);
    properties.set("processorShare", processorShare);
    properties.set("waitShare", waitShare);
    properties.set("memory", memory);
    properties.set("operation", operation);
    properties.set("operationSeconds", operationSeconds);
    properties.set("command", command);
    properties.set("commandSeconds", commandSeconds);
    properties.set("processor", processor);
    properties.set("waiting", waiting);
    properties.set("messages", messages);
    properties.set("bytes", bytes);
    properties.set("addedMemory", addedMemory);
    return properties;
}

LiveRank LiveRank::fromProperties(const Properties& properties) {
    LiveRank rank;
    std::string state;
    LiveKeys::read(properties, "rank", rank.rank);
    LiveKeys::read(properties, "state", state);
    rank.state = stateOf(state);
    LiveKeys::read(properties, "pid", rank.pid);
    LiveKeys::read(properties, "processorShare", rank.processorShare);
    LiveKeys::read(properties, "waitShare", rank.waitShare);
    LiveKeys::read(properties, "memory", rank.memory);
    LiveKeys::read(properties, "operation", rank.operation);
    LiveKeys::read(properties, "operationSeconds", rank.operationSeconds);
    LiveKeys::read(properties, "command", rank.command);
    LiveKeys::read(properties, "commandSeconds", rank.commandSeconds);
    LiveKeys::read(properties, "processor", rank.processor);
    LiveKeys::read(properties, "waiting", rank.waiting);
    LiveKeys::read(properties, "messages", rank.messages);
    LiveKeys::read(properties, "bytes", rank.bytes);
    LiveKeys::read(properties, "addedMemory", rank.addedMemory);
    return rank;
}
