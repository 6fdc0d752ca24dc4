#pragma once

#include "client/report/ReportData.h"

#include <array>
#include <cstddef>
#include <span>
#include <string>
#include <vector>

/// The figures of the report, worked out from the profile.
namespace ReportFigures {

/// How a value is spread over the ranks.
struct Spread {
    double total = 0.0;
    double min = 0.0;
    double mean = 0.0;
    double max = 0.0;
    std::size_t minRank = 0;
    std::size_t maxRank = 0;
    std::array<double, 5> quantiles{}; ///< at 10, 25, 50, 75 and 90 %
    std::size_t count = 0;             ///< of the values

    double getImbalance() const { return mean > 0.0 ? max / mean : 1.0; }
};
Spread spreadOf(std::span<const double> values);

/// `points` values of the sorted list at even distances, the least and the greatest among them.
std::vector<double> quantileCurve(std::span<const double> values, std::size_t points);

struct Histogram {
    double first = 0.0; ///< lower end of the first bin
    double width = 0.0; ///< of a bin
    std::vector<std::size_t> counts;
};
Histogram histogramOf(std::span<const double> values, std::size_t bins);

/// The indices of the `count` greatest values, the greatest first; of equal ones the lower index.
std::vector<std::size_t> greatest(std::span<const double> values, std::size_t count);

/// A table of values in at most MAX_CELLS x MAX_CELLS cells. A cell stands for several rows and columns and
/// keeps their greatest value beside the mean, so that a single slow rank stays in sight.
struct CellTable {
    static constexpr std::size_t MAX_CELLS = 200;
    std::size_t rows = 0; ///< of cells
    std::size_t columns = 0;
    std::size_t rowsEach = 1; ///< rows of the values in a cell
    std::size_t columnsEach = 1;
    std::vector<double> max; ///< row by row
    std::vector<double> mean;
};
CellTable cellsOf(const std::vector<std::vector<double>>& values);

/// Parallel efficiency as the POP centre defines it, with the useful time U of each rank and the span T:
/// sum(U) / (N T) = load balance mean(U) / max(U) x communication efficiency max(U) / T.
struct Efficiency {
    double seconds = 0.0; ///< T
    double usefulMean = 0.0;
    double usefulMax = 0.0;

    double getParallel() const { return seconds > 0.0 ? usefulMean / seconds : 1.0; }
    double getLoadBalance() const { return usefulMax > 0.0 ? usefulMean / usefulMax : 1.0; }
    double getCommunication() const { return seconds > 0.0 ? usefulMax / seconds : 1.0; }
    /// Of 100 s: useful, lost by imbalance, lost by waiting also on the rank that works most. Their sum is
    /// 100.
    std::array<int, 3> getParts() const;
};
Efficiency efficiencyOf(double seconds, std::span<const double> useful);
Efficiency efficiencyOf(const ReportData::Bill& bill);

/// The load balance inside hosts and between them; their product is the load balance. `valid` is false where
/// the hosts have different numbers of ranks, or where there is one host.
struct HostBalance {
    bool valid = false;
    double inside = 1.0;
    double between = 1.0;
};
HostBalance hostBalanceOf(const ReportData& data, std::span<const double> useful);

/// The time of each rank outside operations that may wait [s]; empty when the profile doesn't tell.
std::vector<double> usefulTimes(const ReportData& data);

/// All calls of an event, wherever it was called. For each rank; times in s.
struct EventTotal {
    std::string name;
    std::vector<double> seconds;
    std::vector<double> own;   ///< `seconds` without those of the events inside
    std::vector<double> count; ///< empty when the profile doesn't tell
    bool open = false;
};
/// In the order of their own time over all ranks, the longest first.
std::vector<EventTotal> eventTotals(const ReportData& data);

} // namespace ReportFigures
