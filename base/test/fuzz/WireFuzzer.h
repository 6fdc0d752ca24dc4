#pragma once

#include <cstddef>
#include <cstdint>

/// Feeds `data` to whatever reads what a peer sends: the cutting into lines, the messages, the handshake, the
/// arguments, HTTP and XML-RPC. Aborts when one of them breaks its promise.
void fuzzWire(const std::uint8_t* data, std::size_t size);
