#pragma once

#include "kernel/KernelExport.h"

#include <cstdint>
#include <string>
#include <vector>

class Properties;

/// The profile of a rank at one moment, in plain values. Points in time are [s] since 1970, times [s].
struct ORVEX_KERNEL_EXPORT ProfileSnapshot {
    enum class Life {
        LIVES,
        DIED,
        UNSEEN ///< in another container, or the system doesn't tell
    };

    struct Operation {
        std::uint64_t number = 0; ///< the first of the rank is 1
        std::string name;         ///< empty when the rank had no room for it
        std::string communicator; ///< for example "global, 7 ranks"; empty for an operation of requests
        std::uint32_t bytes = 0;  ///< of this rank's buffer
        int partner = -1;         ///< the root, or the other end of a message; -1: there is none
        bool isOpen = false;      ///< the rank stands in it
        bool isTimed = false;     ///< without it, the next two are 0: it never waits
        double began = 0.0;
        double seconds = 0.0; ///< of an open one: up to `moment`
    };

    struct Command {
        std::string name;
        double began = 0.0;
        double seconds = 0.0; ///< up to `moment`
        // Since it began.
        std::uint64_t operations = 0;
        std::uint64_t bytes = 0;
        double waitSeconds = 0.0;
        // At its begin.
        double processorSeconds = 0.0; ///< of the process
        std::uint64_t memory = 0;      ///< [bytes]
    };

    struct Event {
        std::string name; ///< "class::method"
        std::uint64_t count = 0;
        double seconds = 0.0; ///< of closed spans
        bool isOpen = false;
        double openSeconds = 0.0; ///< up to `moment`
    };

    struct Bill {
        std::uint64_t number = 0; ///< the first of the rank is 1
        std::string command;
        double began = 0.0;
        double wallSeconds = 0.0;
        double processorSeconds = 0.0;
        double waitSeconds = 0.0;
        std::uint64_t operations = 0;
        std::uint64_t bytes = 0;
        std::uint64_t peakMemory = 0; ///< [bytes]
        std::int64_t addedMemory = 0; ///< [bytes]
        bool hasFailed = false;
    };

    // ---- Who.

    std::string path; ///< of the file
    Life life = Life::UNSEEN;
    unsigned rank = 0;
    unsigned ranks = 0;
    int pid = 0;
    int masterPid = 0;
    std::string host;
    std::string masterHost;
    std::string job; ///< the batch system's, empty without one
    std::string product;
    double began = 0.0;        ///< when the profile began
    double lastActivity = 0.0; ///< the last thing that the main thread noted
    double moment = 0.0;       ///< now for a living rank, else lastActivity

    // ---- What it does.

    std::uint64_t begunOperations = 0;
    bool isInside = false; ///< an operation
    std::uint64_t bytes = 0;
    double waitSeconds = 0.0; ///< in operations that may wait, without the one that is open and lentSeconds
    std::uint64_t looks = 0;  ///< in vain
    double lentSeconds = 0.0;
    std::uint64_t depth = 0;           ///< commands at work
    std::vector<Command> commands;     ///< the innermost last; those that are deepest may be missing
    std::vector<Operation> operations; ///< newest first

    // ---- Where its time went. Only in a whole reading.

    std::vector<Bill> bills; ///< newest first
    std::vector<Event> events;
    unsigned halfWritten = 0; ///< records that were being written; they are left out

    static const char* nameOf(Life life);
    /// All of it.
    Properties toProperties() const;
};
