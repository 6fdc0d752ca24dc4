#pragma once

#include "machine/messages/CommunicatorStatistics.h"

#include <cstdint>

/// The operations that all ranks of a communicator call together. The numbers go into the words of
/// CollectiveHistory: every rank has the same program.
enum class Collective : std::uint8_t {
    NONE,
    SYNCHRONISE,
    SLEEPING_SYNCHRONISE,
    SLEEPING_BROADCAST,
    BROADCAST,
    GATHER,
    GATHER_VECTOR,
    ALL_GATHER,
    ALL_GATHER_VECTOR,
    SCATTER,
    SCATTER_VECTOR,
    ALL_TO_ALL,
    ALL_TO_ALL_VECTOR,
    REDUCE,
    ALL_REDUCE,
    SCAN,
    REDUCE_SCATTER,
    CREATE_COMMUNICATOR,
    CREATE_SHARED_MEMORY_COMMUNICATORS,
    OPEN_FILE,
    READ_FILE,
    WRITE_FILE,
    CREATE_WINDOW,
    LEAVE_HYBRID_CONTEXT
};

/// An operation of the message layer, as statistics and the record of operations know it. A static object.
struct MessageOperation {
    const char* name; ///< a static text: the class and the operation
    CommunicatorStatistics::Kind kind = CommunicatorStatistics::GLOBAL;
    bool isTimed = true;
    Collective collective = Collective::NONE;
    unsigned waitsFrom = 0; ///< [bytes] smaller messages never wait for another rank
    static constexpr unsigned NEVER = 0xFFFFFFFF;
    /// Both MPI libraries copy a message of this size and go on.
    static constexpr unsigned COPIED = 4096;
};
