#pragma once

#include "client/TraceData.h"

#include <cstdint>
#include <map>
#include <string>
#include <vector>

/// Brings the clocks of all ranks to one: nanoseconds since the first rank began to record.
///
/// The ranks of a host share a clock. That of another host is a line through the moments at which both clocks
/// are known, piece by piece; beyond them it goes on as it ran in all.
class TraceClock {
public:
    /// @param trace  borrowed
    explicit TraceClock(const TraceData& trace);

    /// Never falls when `ticks` rise. @param rank  that has answered
    std::int64_t toNanoseconds(const TraceData::Rank& rank, std::uint64_t ticks) const;
    /// Moves the times of a host, other than rank 0's, by at most its tolerance. @return by how much in all
    /// [ns]
    std::int64_t move(const std::string& host, std::int64_t nanoseconds);
    /// The times begin at 0 again.
    void settle();
    /// By how much times of two hosts may be apart that are told as equal [s]
    double getTolerance() const { return _tolerance; }
    /// Hosts of whose clocks nothing is known: they count as having begun together with rank 0.
    const std::vector<std::string>& getUnknownHosts() const { return _unknownHosts; }

private:
    struct Line {
        std::vector<TraceData::ClockPoint> points; ///< in the order of time, at least one
        double slope = 1.0;                        ///< before the first and after the last
        double drift = 0.0;                        ///< by which the slope may be wrong
        double tolerance = 0.0;                    ///< [ns]
        std::int64_t moved = 0;                    ///< [ns]
    };
    static Line makeLine(const std::vector<TraceData::ClockPoint>& points, double ratio);
    static double toMaster(const Line& line, std::uint64_t ticks, std::uint64_t origin);
    static double toleranceAt(const Line& line, std::uint64_t ticks);

    const TraceData& _trace;
    std::map<std::string, Line> _lines; ///< by host
    std::vector<std::string> _unknownHosts;
    std::uint64_t _base = 0;  ///< near the begin, so that differences are exact [ticks of rank 0]
    std::int64_t _origin = 0; ///< the begin, from _base [ns]
    double _rate = 1e9;       ///< ticks of rank 0 in a second
    double _tolerance = 0.0;
};
