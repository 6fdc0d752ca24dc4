#include "kernel/profile/CommunicatorLabel.h"

#include <algorithm>

namespace {

constexpr unsigned NAME_SHIFT = 24;
constexpr std::uint64_t MAX_SIZE = (1u << NAME_SHIFT) - 1;

} // namespace

std::uint64_t CommunicatorLabel::make(std::uint32_t tag, Name name, unsigned size) {
    return std::uint64_t(tag) << 32 | std::uint64_t(name) << NAME_SHIFT |
           std::min<std::uint64_t>(size, MAX_SIZE);
}

std::string CommunicatorLabel::describe(std::uint64_t label) {
    if (label == 0)
        return {};
    const std::uint64_t size = label & MAX_SIZE;
    const std::string ranks = std::to_string(size) + (size == 1 ? " rank" : " ranks");
    switch (static_cast<Name>((label >> NAME_SHIFT) & 0xFF)) {
    case UNNAMED:
        break;
    case GLOBAL:
        return "global, " + ranks;
    case COMMAND:
        return "command, " + ranks;
    case HOST:
        return "host, " + ranks;
    case SOCKET:
        return "socket, " + ranks;
    case NUMA_NODE:
        return "NUMA node, " + ranks;
    }
    return "of " + ranks;
}
