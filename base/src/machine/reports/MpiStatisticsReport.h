#pragma once

#include "machine/OutputFileStream.h"

#include <cstdint>
#include <map>
#include <span>
#include <string>
#include <vector>

class Communicator;

/// Writes the events of all ranks as tables into one file: one table for each event, in it some rows for each
/// rank. The master holds the numbers of one event at a time. All operations are collective over the
/// communicator, main thread.
class MpiStatisticsReport {
public:
    /// One event of one rank, by size class.
    struct Numbers {
        std::vector<std::uint64_t> counts;
        std::vector<double> times; ///< [s]
    };
    using Events = std::map<std::string, Numbers>;

    /// @param lowerBounds  the first byte count of each size class; outlives the report
    MpiStatisticsReport(Communicator& communicator, const std::string& path,
                        std::span<const unsigned> lowerBounds);

    /// @param title   goes before the name of each event
    /// @param events  of this rank; the ranks may know different ones
    void write(const std::string& title, const Events& events);
    /// @return false, on all ranks, when not all of it is in the file
    bool close();

private:
    void writeTable(const std::string& title, const Numbers& mine);
    std::string makeRank(std::size_t rank, const std::uint64_t* counts, const double* times) const;
    std::string makeLabel(std::size_t sizeClass) const;

    Communicator* _communicator;
    std::span<const unsigned> _lowerBounds;
    OutputFileStream _file;
};
