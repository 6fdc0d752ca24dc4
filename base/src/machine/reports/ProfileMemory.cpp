#include "machine/reports/ProfileMemory.h"

#include "machine/Communicator.h"
#include "machine/MachineGround.h"
#include "machine/MachineHost.h"
#include "machine/SystemMonitor.h"
#include "machine/reports/MemoryHistory.h"
#include "machine/reports/ProfileNumbers.h"

#include "kernel/Properties.h"

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <vector>

namespace {

using Column = std::vector<long long>;

/// The resident memory of this process in each step. A step without a sample has the value before it.
Column readColumn(const MemoryHistory& history, const ProfileMemory::Grid& grid) {
    std::vector<std::int64_t> cells;
    double emptyStep = 0.0;
    static_cast<void>(history.resample(grid.step, grid.rows, cells, emptyStep));
    Column column(grid.rows);
    std::int64_t before = 0;
    for (std::size_t row = 0; row < grid.rows; ++row) {
        const std::int64_t cell = cells[row * MemoryHistory::COLUMNS + SystemMonitor::RESIDENT];
        before = cell < 0 ? before : cell;
        column[row] = before;
    }
    return column;
}

/// The columns of all hosts, one behind the other, on the serial or master process. Collective.
Column gatherHosts(Column column, Communicator::Operation operation) {
    if (MachineGround::isSerial() || column.empty())
        return column;
    MachineGround::getHost().getIntraHostComm().reduce(column, operation, 0);
    if (!MachineGround::getHost().firstProcessOnHost())
        column.clear();
    Column all;
    std::vector<unsigned> lengths;
    MachineGround::globalCommunicator().gatherVector(column, all, lengths, Communicator::_master);
    return all;
}

Column cut(const Column& all, std::size_t host, std::size_t rows) {
    const auto first = all.begin() + static_cast<std::ptrdiff_t>(host * rows);
    return {first, first + static_cast<std::ptrdiff_t>(rows)};
}

double reduceOverJob(double value, Communicator::Operation operation) {
    if (MachineGround::isParallel())
        MachineGround::globalCommunicator().allReduce(value, operation);
    return value;
}

std::vector<double> listTimes(const ProfileMemory::Grid& grid) {
    std::vector<double> times;
    for (std::size_t row = 1; row <= grid.rows; ++row)
        times.push_back(static_cast<double>(row) * grid.step);
    return ProfileNumbers::round(times, 6);
}

} // namespace

ProfileMemory::Grid ProfileMemory::chooseGrid(double longestStep, double shortestEnd, std::size_t hosts) {
    constexpr double ROUNDING = 1e-9;
    const std::size_t most =
        std::clamp(MAX_CELLS / std::max<std::size_t>(hosts, 1), std::size_t{1}, MAX_TIMES);
    if (!(longestStep > 0.0) || shortestEnd < longestStep)
        return {};
    const double step = std::max(longestStep, shortestEnd / static_cast<double>(most));
    return {step, std::min(most, static_cast<std::size_t>(std::floor(shortestEnd / step + ROUNDING)))};
}

Properties ProfileMemory::gather(const MemoryHistory* history) {
    const bool isOn = reduceOverJob(history ? 1.0 : 0.0, Communicator::MIN) > 0.0;
    Properties part;
    part.set("on", isOn);
    if (!isOn || !history) // isOn: no process lacks it
        return part;
    const std::size_t hosts = MachineGround::getHost().getNumberHosts();
    const double step = reduceOverJob(history->empty() ? 0.0 : history->findStep(), Communicator::MAX);
    const double end = reduceOverJob(history->empty() ? 0.0 : history->getEndTime(), Communicator::MIN);
    const Grid grid = chooseGrid(step, end, hosts);
    const Column column = readColumn(*history, grid);
    const Column sums = gatherHosts(column, Communicator::SUM);
    const Column largest = gatherHosts(column, Communicator::MAX);
    if (!MachineGround::isSerialOrMaster())
        return Properties();
    std::vector<Properties> list;
    for (std::size_t host = 0; host < hosts && grid.rows > 0; ++host) {
        Properties& entry = list.emplace_back();
        entry.set("host", host);
        entry.set("resident", cut(sums, host, grid.rows));
        entry.set("max", cut(largest, host, grid.rows));
    }
    part.set("times", listTimes(grid));
    part.set("hosts", list);
    return part;
}
