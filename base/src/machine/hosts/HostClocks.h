#pragma once

#include <cstdint>
#include <vector>

class Communicator;

/// How the clock of this host runs against that of the first rank's host, for reports that put the times of
/// several hosts side by side. In a job on one host nothing is done.
///
/// The first ranks of the hosts exchange small messages at moments when all ranks meet anyway. Each keeps a
/// list of moments at which it knows both clocks. A clock is TickClock.
class HostClocks {
public:
    /// Both clocks at one moment.
    struct Point {
        std::uint64_t own = 0;       ///< [ticks]
        std::uint64_t master = 0;    ///< [ticks of the first rank's host]
        std::uint64_t tolerance = 0; ///< by which `own` may be wrong, at most [own ticks]
    };

    static constexpr double INTERVAL = 5.0;        ///< [s] after which they are measured again
    static constexpr std::size_t MAX_POINTS = 256; ///< that are kept: the first one and the last ones

    /// Whether the last measurement is older than INTERVAL. False on one host, and anywhere except on rank 0,
    /// which decides for all. Main thread.
    static bool isDue();
    /// Measures. Collective over `ranks`, which has the ranks of the job; only the first ranks of the hosts
    /// take long. Main thread. @throw the message layer's error
    static void measure(Communicator& ranks);
    /// Of this rank, in the order of time: empty unless it is the first one of a host other than rank 0's.
    /// Any thread.
    static std::vector<Point> getPoints();
};
