#pragma once

#include "client/TraceClock.h"
#include "client/TraceData.h"
#include "client/TraceMatches.h"

#include <array>
#include <cstddef>
#include <cstdint>
#include <iosfwd>
#include <string>
#include <string_view>
#include <vector>

/// Writes a trace in the Trace Event Format, as JSON that many viewers read.
///
/// A rank is a process of the file; its main thread has the number of the process, a second one holds its
/// commands. Times are microseconds with three decimals since the first rank began. Brackets of a thread
/// nest exactly. Requests, which may overlap, are asynchronous events.
class TraceFile {
public:
    static constexpr std::size_t MAX_SIZE = 100'000'000; ///< [bytes]; viewers fail on larger files

    struct Summary {
        std::size_t events = 0;                 ///< brackets and requests that stand in the file
        std::size_t dropped = 0;                ///< that don't
        std::vector<unsigned> droppedFrom;      ///< ranks of which some are missing
        std::vector<unsigned> silent;           ///< ranks of which nothing is known
        std::size_t collectives = 0;            ///< that several ranks took part in
        std::size_t messages = 0;               ///< found with both ends
        std::size_t violations = 0;             ///< as TraceMatches counts them
        double seconds = 0.0;                   ///< from the first begin to the last end
        double tolerance = 0.0;                 ///< of times of different hosts [s]
        std::vector<std::string> unknownClocks; ///< hosts
    };

    /// How many of `counts` records of each rank fit into a file: the same limit for all ranks.
    static std::size_t getLimit(const std::vector<std::size_t>& counts);

    /// @param output  a failure shows in its state. @param maxSize  of the file, for tests [bytes]
    TraceFile(const TraceData& trace, std::ostream& output, std::size_t maxSize = MAX_SIZE);
    Summary write();

private:
    struct Placed {
        const TraceLayout::Record* record = nullptr;
        std::size_t number = 0; ///< in the rank's list
        std::int64_t begin = 0; ///< [ns]
        std::int64_t end = 0;   ///< [ns]
    };
    struct Arrow {
        std::int64_t time = 0; ///< [ns]
        char phase = 's';
        std::size_t flow = 0;
    };

    bool put(const std::string& event);
    void writeNames(const TraceData::Rank& rank);
    void nameThread(const TraceData::Rank& rank, std::size_t thread, const char* name, int order);
    void writeRank(std::size_t index);
    std::vector<Placed> place(const TraceData::Rank& rank) const;
    std::string bracket(const TraceData::Rank& rank, const Placed& placed) const;
    std::string argumentsOf(const TraceData::Rank& rank, const TraceLayout::Record& record) const;
    void writeRequests(const TraceData::Rank& rank, const std::vector<Placed>& all);
    bool writeRequest(const TraceData::Rank& rank, const Placed& begun, std::int64_t end, bool isOpen);
    void sortFlows();
    void writeFlows(std::size_t index);
    void writeOtherData();
    std::size_t mainThread(const TraceData::Rank& rank) const { return rank.rank + 1; }
    std::size_t commandThread(const TraceData::Rank& rank) const {
        return _trace.ranks.size() + rank.rank + 1;
    }

    const TraceData& _trace;
    std::ostream& _output;
    const std::size_t _maxSize;
    TraceClock _clock; ///< the matches settle it
    const TraceMatches _matches;
    std::vector<std::vector<Arrow>> _arrows; ///< of each rank
    std::size_t _size = 0;                   ///< [bytes]
    std::size_t _requests = 0;
    bool _isFirst = true;
    Summary _summary;
};
