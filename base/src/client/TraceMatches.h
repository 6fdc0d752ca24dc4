#pragma once

#include "client/TraceClock.h"
#include "client/TraceData.h"

#include <cstddef>
#include <cstdint>
#include <utility>
#include <vector>

/// The records of different ranks that belong together: collectives, and messages with their receives.
///
/// It also proves the clocks: no receive ends before its message was sent, and no collective before its last
/// rank began, for those whose results need it. Where times of two hosts break this, the times of a host are
/// moved within its tolerance; those that still do are counted.
class TraceMatches {
public:
    struct Place {
        std::size_t rank = 0;
        std::size_t record = 0;
    };
    /// From the first place to the others, in the order of their ends.
    struct Flow {
        bool isCollective = false;
        Place from; ///< the rank that came last, or the sender
        std::vector<Place> to;
    };

    TraceMatches(const TraceData& trace, TraceClock& clock);

    std::size_t countCollectives() const { return _collectives; }
    std::size_t countMessages() const { return _messages; }
    /// Ends before the begin that they depend on.
    std::size_t countViolations() const { return _violations; }
    /// At most MAX_FLOWS places in all, in a job of at most MAX_FLOW_RANKS ranks.
    const std::vector<Flow>& getFlows() const { return _flows; }

    static constexpr std::size_t MAX_FLOWS = 40'000;
    static constexpr std::size_t MAX_FLOW_RANKS = 64;

private:
    void matchCollectives();
    void joinCollective(std::vector<Place>& places);
    void checkCollective(const std::vector<Place>& places, const Place& last);
    void checkMeeting(const std::vector<Place>& places, const Place& last);
    void depend(const Place& end, const Place& begin) { _dependences.emplace_back(end, begin); }
    void adjust();
    void countBreaches();
    void matchMessages();
    void joinMessages(const std::vector<Place>& sends, const std::vector<Place>& receives);
    void addFlow(Flow flow);
    const TraceLayout::Record& at(const Place& place) const;
    std::int64_t begin(const Place& place) const;
    std::int64_t end(const Place& place) const;

    const TraceData& _trace;
    TraceClock& _clock;
    std::vector<std::pair<Place, Place>> _dependences; ///< the end of the first needs the begin of the second
    std::size_t _collectives = 0;
    std::size_t _messages = 0;
    std::size_t _violations = 0;
    std::size_t _flowPlaces = 0;
    std::vector<Flow> _flows;
};
