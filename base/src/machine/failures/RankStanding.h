#pragma once

#include "kernel/Properties.h"
#include "machine/MachineExport.h"

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

/// The place of one rank at a moment, as the roll call tells it.
struct ORVEX_MACHINE_EXPORT RankStanding {
    enum State {
        COMPUTES, ///< at work outside the message layer
        WAITS,    ///< inside an operation of the message layer
        SLEEPS,   ///< outside it, without processor time: for a lock, a file, a timer
        STOPPED,  ///< by a signal or a debugger
        DEAD,     ///< its process is gone
        SILENT    ///< it doesn't answer, and nobody can tell why
    };
    static const char* nameOf(State state);
    /// SILENT for a text that names no state.
    static State stateOf(std::string_view name);

    Properties toProperties() const;
    /// Keys that are missing or of another type keep their defaults: another rank's text is not trusted.
    static RankStanding fromProperties(const Properties& properties);

    unsigned rank = 0;
    State state = SILENT;
    std::string host;
    int pid = 0;
    double processorShare = 0.0; ///< of one processor, over the moment of the look; of all threads when
                                 ///< others than the main thread work too

    std::string command;         ///< at work; empty between commands
    double commandSeconds = 0.0; ///< since it began on this rank [s]

    std::string operation;        ///< of the message layer, for example "allReduce"; empty outside
    std::string communicator;     ///< for example "global, 7 ranks"
    std::uint64_t bytes = 0;      ///< of this rank's buffer
    int partner = -1;             ///< the root of a collective, the other end of a message; -1: there is none
    double stillSeconds = 0.0;    ///< since an operation last began or ended, or a command began [s]
    std::uint64_t operations = 0; ///< begun since the command began
    std::uint64_t collectives = 0; ///< of these, those that all ranks of the communicator call together
    std::uint64_t number = 0;      ///< of the collective that it stands in, among those of its communicator
    std::string failure;           ///< the message of the error by which this rank left the command

    std::vector<std::string> stack; ///< of the main thread, the innermost frame first
};
