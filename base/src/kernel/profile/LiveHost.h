#pragma once

#include "kernel/KernelExport.h"
#include "kernel/profile/LiveFigure.h"
#include "kernel/profile/LiveRank.h"

#include <array>
#include <map>
#include <optional>
#include <string>
#include <utility>
#include <vector>

/// The ranks of one host, or of all hosts, folded for a live view. A value type.
struct ORVEX_KERNEL_EXPORT LiveHost {
    static constexpr std::size_t MAX_ODD = 3;         ///< ranks that differ, of one host
    static constexpr std::size_t MAX_OPERATIONS = 4;  ///< that are told
    static constexpr double CLEARLY = 0.1;            ///< difference of shares that is no chance
    static constexpr const char* OUTSIDE = "outside"; ///< in place of an operation

    std::string name;
    unsigned ranks = 0;
    std::string silence;  ///< the reason when nothing is known of its ranks
    double seconds = 0.0; ///< that the shares cover; 0: there was no earlier look, and shares are unknown

    // ---- Of ranks that live.
    LiveFigure processorShare;
    LiveFigure waitShare;
    LiveFigure memory;
    std::array<unsigned, LiveRank::NUMBER_STATES> states{};
    std::map<std::string, unsigned> operations; ///< ranks in each of them; OUTSIDE for the others

    // ---- The command at work and its costs so far, see LiveRank.
    std::string command;
    double commandSeconds = 0.0; ///< the longest of all ranks
    LiveFigure processor;
    LiveFigure waiting;
    LiveFigure messages;
    LiveFigure bytes;
    LiveFigure addedMemory;

    std::vector<LiveRank> odd;  ///< ranks that differ from the others, the worst first
    std::vector<LiveRank> list; ///< all, in their order; only when asked for

    // ---- Of the host itself; 0 when it isn't known. Not folded.
    double load = 0.0; ///< mean over a minute: threads that run or want to
    unsigned processors = 0;
    long long hostMemory = 0; ///< [bytes]
    long long freeMemory = 0; ///< [bytes]

    /// @param seconds  that the shares of the ranks cover
    static LiveHost fold(const std::string& name, const std::vector<LiveRank>& ranks, double seconds);
    /// Of a host that doesn't answer.
    static LiveHost makeSilent(const std::string& name, const std::vector<unsigned>& ranks,
                               const std::string& reason);
    /// Adds the figures, states and operations of other ranks.
    void add(const LiveHost& other);
    /// The operation in which most ranks stand, and how many; OUTSIDE when most stand in none.
    std::pair<std::string, unsigned> getMostCommon() const;
    /// The rank for which the others wait: that with the least waiting while a command is at work and
    /// others wait clearly more.
    std::optional<unsigned> getSlowest() const;

    Properties toProperties() const;
    /// Keys that are missing or of another type keep their defaults.
    static LiveHost fromProperties(const Properties& properties);

private:
    void addRank(const LiveRank& rank);
    void findOdd(const std::vector<LiveRank>& ranks);
};
