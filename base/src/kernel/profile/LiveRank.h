#pragma once

#include "kernel/KernelExport.h"
#include "kernel/Properties.h"

#include <array>
#include <cstdint>
#include <string>
#include <string_view>

/// The work of one rank, as a live view tells it: shares over the time since the last look, the rest at the
/// moment. A value type.
struct ORVEX_KERNEL_EXPORT LiveRank {
    enum State {
        COMPUTES, ///< at work outside the message layer
        WAITS,    ///< inside an operation of the message layer
        SLEEPS,   ///< outside it, without processor time
        STOPPED,  ///< by a signal or a debugger
        DEAD,     ///< its process is gone
        SILENT,   ///< its host doesn't answer
        NUMBER_STATES
    };
    static const char* nameOf(State state);
    /// SILENT for a text that names no state.
    static State stateOf(std::string_view name);
    static constexpr double UNKNOWN = -1.0;

    Properties toProperties() const;
    /// Keys that are missing or of another type keep their defaults.
    static LiveRank fromProperties(const Properties& properties);
    bool isAlive() const { return state != DEAD && state != SILENT; }

    unsigned rank = 0;
    State state = SILENT;
    int pid = 0;
    double processorShare = UNKNOWN; ///< of one processor, all threads of the process
    double waitShare = UNKNOWN;      ///< in operations of the message layer that may wait, 0 to 1
    long long memory = 0;            ///< [bytes] resident
    std::string operation;           ///< of the message layer, in which it stands; empty outside
    double operationSeconds = 0.0;   ///< since it began; 0 when it isn't timed [s]

    std::string command;         ///< at work; empty between commands
    double commandSeconds = 0.0; ///< since it began on this rank [s]
    // ---- Its costs so far.
    double processor = 0.0;     ///< [s] of all threads
    double waiting = 0.0;       ///< [s]
    std::uint64_t messages = 0; ///< operations of the message layer
    std::uint64_t bytes = 0;
    long long addedMemory = 0; ///< [bytes]
};
