#pragma once

#include <cstdint>
#include <type_traits>

/// The records of a rank while a trace is taken, as its clients get them: records of a fixed size, as bytes.
namespace TraceLayout {

enum Kind : std::uint8_t {
    EVENT,                ///< a bracket of the code, "class::method"
    COMMAND,              ///< from its broadcast to its end
    OPERATION,            ///< of the message layer, other than the following
    SEND,                 ///< a message, done when it returns
    RECEIVE,              ///< the same
    BEGIN_SEND,           ///< of a request, which COMPLETE ends
    BEGIN_RECEIVE,        ///< the same
    COMPLETE,             ///< the end of all requests of a stack
    COLLECTIVE,           ///< of all ranks of a communicator; nothing follows for when they leave
    COLLECTIVE_MEETING,   ///< no rank leaves before the last one came
    COLLECTIVE_FROM_ROOT, ///< no rank leaves before the root came
    COLLECTIVE_TO_ROOT,   ///< the root doesn't leave before the last rank came
};

enum Flag : std::uint8_t {
    CUT_BEGIN = 1, ///< it began before the span
    CUT_END = 2,   ///< it ended after the span, or nothing is known of its end
};

struct Record {
    std::uint64_t begin;        ///< [ticks] of TickClock
    std::uint64_t end;          ///< [ticks]
    std::uint32_t name;         ///< an index into the rank's texts
    std::uint32_t communicator; ///< the same; 0: none
    std::uint32_t group;        ///< the communicator's number on all its ranks; 0: it has none
    std::uint32_t number;       ///< of a collective, on its communicator since the last change of `epoch`
    std::uint32_t epoch;        ///< how many commands had begun and ended, the same on all ranks
    std::uint32_t bytes;        ///< of this rank's buffer
    std::int32_t partner;       ///< the root, or the other end of a message; -1: none
    std::uint32_t tag;          ///< of a message
    std::uint32_t requests;     ///< the stack of requests of BEGIN_ and COMPLETE; tells them apart
    std::uint8_t kind;
    std::uint8_t flags;
    std::uint16_t reserved;
};
static_assert(sizeof(Record) == 56 && std::is_trivially_copyable_v<Record>);

constexpr double MAX_SECONDS = 600.0;            ///< of a trace
constexpr std::uint32_t MAX_RECORDS = 1'000'000; ///< of a rank
constexpr std::uint32_t MAX_PIECE = 16'384;      ///< records that are fetched at once
constexpr std::uint32_t MAX_NAMES = 16'384;      ///< of a rank; the first stands for all beyond
constexpr std::uint32_t MAX_NAMES_PIECE = 1'024; ///< that are fetched at once
constexpr std::uint32_t MAX_NAME_SIZE = 256;     ///< [bytes]

} // namespace TraceLayout
