#include "machine/reports/MemoryHistory.h"

#include <algorithm>

namespace {

void raiseTo(MemoryHistory::Values& values, const MemoryHistory::Values& others) {
    for (std::size_t i = 0; i < values.size(); ++i)
        values[i] = std::max(values[i], others[i]);
}

} // namespace

void MemoryHistory::append(double time, const Values& values) {
    if (_times.size() == MAXIMUM_SAMPLES)
        thinOut();
    _times.push_back(time);
    _values.push_back(values);
}

void MemoryHistory::thinOut() {
    const std::size_t half = _times.size() / 2;
    for (std::size_t i = 0; i < half; ++i) {
        Values larger = _values[2 * i];
        raiseTo(larger, _values[2 * i + 1]);
        _values[i] = larger;
        _times[i] = _times[2 * i + 1];
    }
    _times.resize(half);
    _values.resize(half);
}

double MemoryHistory::findStep() const {
    double step = 0.0;
    double before = 0.0;
    for (const double time : _times) {
        step = std::max(step, time - before);
        before = time;
    }
    return step;
}

bool MemoryHistory::resample(double step, std::size_t rows, std::vector<std::int64_t>& cells,
                             double& emptyStep) const {
    constexpr double ROUNDING = 1e-9; // parts of a step: times are rounded, and a sample may lie on its end
    bool isComplete = true;
    std::size_t next = 0;
    cells.clear();
    for (std::size_t row = 1; row <= rows; ++row) {
        const double end = static_cast<double>(row) * step;
        Values cell;
        cell.fill(-1);
        for (; next < _times.size() && _times[next] <= end + ROUNDING * step; ++next)
            raiseTo(cell, _values[next]);
        if (isComplete && cell.front() == -1) {
            isComplete = false;
            emptyStep = next < _times.size() ? _times[next] : end;
        }
        cells.insert(cells.end(), cell.begin(), cell.end());
    }
    return isComplete;
}
