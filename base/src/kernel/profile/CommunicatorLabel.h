#pragma once

#include "kernel/KernelExport.h"

#include <cstdint>
#include <string>

/// A communicator in one word, for profiles and the record of operations: name and size in the
/// lower half, and in the upper half a tag that tells it from others.
namespace CommunicatorLabel {

enum Name : std::uint8_t { UNNAMED, GLOBAL, COMMAND, HOST, SOCKET, NUMA_NODE };

ORVEX_KERNEL_EXPORT std::uint64_t make(std::uint32_t tag, Name name, unsigned size);
/// As in "global, 7 ranks"; empty for 0.
ORVEX_KERNEL_EXPORT std::string describe(std::uint64_t label);

} // namespace CommunicatorLabel
