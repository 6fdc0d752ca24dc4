#pragma once

#include "machine/MachineExport.h"

#include <cstddef>
#include <cstdint>
#include <string>
#include <utility>
#include <vector>

class MemoryHistory;

/// The histories of all processes, summed on a common grid of times, as one CSV file.
class ORVEX_MACHINE_EXPORT MemoryHistoryFile {
public:
    /// @param name  of the file, of use on the serial or master process
    explicit MemoryHistoryFile(std::string name) : _name(std::move(name)) {}
    /// Collective over the job, main thread. SystemMonitor::exportHistoryData() tells the rest.
    void write(const MemoryHistory& history) const;

private:
    /// The rows of the job, on the serial or master process.
    static void sumCells(std::vector<std::int64_t>& cells);
    void writeRows(double step, const std::vector<std::int64_t>& cells) const;
    /// @return the reason of a failure; empty on success
    std::string tryToWrite(double step, const std::vector<std::int64_t>& cells) const;

    std::string _name;
};
