#pragma once

#include "machine/MachineExport.h"

#include <array>
#include <cstddef>
#include <cstdint>
#include <vector>

/// The samples of one process over time. It never holds more than MAXIMUM_SAMPLES: when it is full, each two
/// neighbours become one sample, with the larger value of each metric and the time of the later one.
class ORVEX_MACHINE_EXPORT MemoryHistory {
public:
    static constexpr std::size_t COLUMNS = 6;
    using Values = std::array<std::int64_t, COLUMNS>; ///< one for each metric of the SystemMonitor
    /// About 15 MB; at 50 samples a second the first 87 minutes are whole. Spreadsheet programs take as many
    /// rows.
    static constexpr std::size_t MAXIMUM_SAMPLES = 1u << 18;

    /// @param time  [s] not before that of the sample before
    void append(double time, const Values& values);

    bool empty() const { return _times.empty(); }
    std::size_t size() const { return _times.size(); }
    double getEndTime() const { return _times.back(); }
    /// [s] The longest time without a sample, from time 0 on: a step of this length or more has one.
    double findStep() const;
    /// Samples to a grid of times step, 2 step, ..., rows * step.
    /// @param cells  the largest values in each step, row by row
    /// @param emptyStep  set when a step has no sample: the time of the next sample, or else of the step
    /// @return whether each step has a sample
    bool resample(double step, std::size_t rows, std::vector<std::int64_t>& cells, double& emptyStep) const;

private:
    void thinOut();

    std::vector<double> _times; ///< [s]
    std::vector<Values> _values;
};
