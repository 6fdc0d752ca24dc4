#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

/// The profile of a job as typed values: the document that GetProfile returns and that files keep. Times in
/// seconds, memory in bytes. A part that the document lacks is empty here.
struct ReportData {
    static constexpr std::size_t MAX_SIZE = std::size_t(512) << 20; ///< of the document [bytes]
    static constexpr std::size_t MAX_RANKS = 1000000;

    using PerRank = std::vector<double>; ///< in rank order; empty or as long as the job has ranks

    /// The places where the ranks of a host may run. The first four have one entry for each processor.
    struct Affinity {
        std::vector<long> processors; ///< numbers of the operating system
        std::vector<long> cores;
        std::vector<long> numa;
        std::vector<long> sockets;
        std::vector<std::vector<long>> ofRank; ///< the processors of each rank of the host; empty: all
    };
    struct Host {
        std::string name;
        double cores = 0.0;
        double memory = 0.0;
        std::vector<std::size_t> ranks;
        Affinity affinity;
    };
    struct Step {
        std::string name;
        double at = 0.0; ///< since the start
        double seconds = 0.0;
        double max = 0.0; ///< of all ranks
        std::size_t maxRank = 0;
    };
    /// An event, together with the events around it. The same event may be there several times.
    struct Event {
        std::string name;
        long parent = -1;
        PerRank count;
        PerRank seconds;
        bool open = false;
    };
    struct Operation {
        std::string name;
        std::string kind;          ///< "global" or "pair"
        std::vector<double> count; ///< one for each size class, as `seconds`
        std::vector<double> seconds;
    };
    /// Messages from the row's rank or host to the column's.
    struct Partners {
        bool byHost = false;
        std::vector<std::vector<double>> counts;
    };
    struct MemoryOfHost {
        std::size_t host = 0;
        std::vector<double> resident; ///< of all ranks of the host
        std::vector<double> max;      ///< of one of them
    };
    /// A figure of a command over the ranks.
    struct Figure {
        double total = 0.0;
        double min = 0.0;
        double mean = 0.0;
        double max = 0.0;
        std::size_t minRank = 0;
        std::size_t maxRank = 0;
    };
    struct Bill {
        std::string command;
        std::string client;
        double began = 0.0; ///< since 1970
        double wall = 0.0;
        double ranks = 0.0;
        bool failed = false;
        Figure processor;
        Figure waiting;
        Figure peakMemory;
        Figure messages;
        Figure bytes;
    };

    /// @throw InputError that names the place when `json` isn't a profile or contradicts itself
    static ReportData parse(std::string_view json);

    /// The name of the host of a rank; empty when the document doesn't tell.
    std::string hostOf(std::size_t rank) const;

    double written = 0.0; ///< since 1970
    std::string product;
    std::string session;
    std::string commandLine;
    std::string build;
    std::string mpi;
    std::vector<std::string> warnings; ///< what spoils the times
    std::size_t ranks = 0;
    std::vector<Host> hosts;
    std::vector<std::size_t> rankHost; ///< empty or as long as the job has ranks
    std::vector<Step> start;

    double seconds = 0.0; ///< that the profile covers, in commands
    PerRank waiting;
    PerRank processor;
    PerRank memory;
    PerRank peakMemory;
    PerRank messageCount;
    PerRank bytes;

    bool hasEvents = false;
    std::vector<Event> events;
    bool hasMessages = false;
    std::vector<double> sizeClasses; ///< the first byte count of each
    std::vector<Operation> operations;
    Partners partners;
    bool hasMemory = false;
    std::vector<double> memoryTimes;
    std::vector<MemoryOfHost> memoryOfHosts;
    std::vector<Bill> bills;
    std::vector<std::pair<std::string, std::string>> options;
};
