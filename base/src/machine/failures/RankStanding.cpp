#include "machine/failures/RankStanding.h"

#include "kernel/Error.h"

#include <algorithm>
#include <array>
#include <string_view>

namespace {

constexpr std::array NAMES{"computes", "waits", "sleeps", "stopped", "dead", "silent"};

/// The value under `key`, when there is one of that type.
template <class T>
void read(const Properties& properties, const char* key, T& value) {
    if (!properties.hasName(key))
        return;
    try {
        properties.get(key, value);
    } catch (const InputError&) {
        // It stays what it was.
    }
}

void read(const Properties& properties, const char* key, std::uint64_t& value) {
    long long number = 0;
    read(properties, key, number);
    value = static_cast<std::uint64_t>(std::max(number, 0LL));
}

} // namespace

const char* RankStanding::nameOf(State state) {
    return NAMES.at(static_cast<std::size_t>(state));
}

RankStanding::State RankStanding::stateOf(std::string_view name) {
    const auto found = std::find(NAMES.begin(), NAMES.end(), name);
    return found != NAMES.end() ? static_cast<State>(found - NAMES.begin()) : SILENT;
}

Properties RankStanding::toProperties() const {
    Properties properties;
    properties.set("rank", rank);
    properties.set("state", nameOf(state));
    properties.set("host", host);
    properties.set("pid", pid);
    properties.set("processorShare", processorShare);
    properties.set("command", command);
    properties.set("commandSeconds", commandSeconds);
    properties.set("operation", operation);
    properties.set("communicator", communicator);
    properties.set("bytes", bytes);
    properties.set("partner", partner);
    properties.set("stillSeconds", stillSeconds);
    properties.set("operations", operations);
    properties.set("collectives", collectives);
    properties.set("number", number);
    properties.set("failure", failure);
    properties.set("stack", stack);
    return properties;
}

RankStanding RankStanding::fromProperties(const Properties& properties) {
    RankStanding standing;
    std::string state;
    read(properties, "state", state);
    standing.state = stateOf(state);
    read(properties, "rank", standing.rank);
    read(properties, "host", standing.host);
    read(properties, "pid", standing.pid);
    read(properties, "processorShare", standing.processorShare);
    read(properties, "command", standing.command);
    read(properties, "commandSeconds", standing.commandSeconds);
    read(properties, "operation", standing.operation);
    read(properties, "communicator", standing.communicator);
    read(properties, "bytes", standing.bytes);
    read(properties, "partner", standing.partner);
    read(properties, "stillSeconds", standing.stillSeconds);
    read(properties, "operations", standing.operations);
    read(properties, "collectives", standing.collectives);
    read(properties, "number", standing.number);
    read(properties, "failure", standing.failure);
    read(properties, "stack", standing.stack);
    return standing;
}
