#include "machine/reports/MemoryHistoryFile.h"

#include "machine/Communicator.h"
#include "machine/GlobalCondition.h"
#include "machine/MachineGround.h"
#include "machine/reports/MemoryHistory.h"

#include "kernel/Error.h"
#include "kernel/Raise.h"
#include "platform/FileSystem.h"

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <fstream>
#include <iostream>
#include <locale>
#include <system_error>

namespace {

constexpr const char* FAILED = "Error detected writing memory monitor history file";
constexpr std::size_t COLUMNS = MemoryHistory::COLUMNS;

/// Digits that keep the times of neighbouring rows apart; the stream's own number where that is enough.
int countDigits(std::size_t rows) {
    return std::max(6, static_cast<int>(std::ceil(std::log10(static_cast<double>(rows) + 1.0))) + 3);
}

} // namespace

void MemoryHistoryFile::write(const MemoryHistory& history) const {
    if (GlobalCondition(history.empty(), GlobalCondition::ON_ANY)) {
        std::cout << "Empty sampling history..." << std::endl;
        return;
    }
    double step = history.findStep();
    double end = history.getEndTime();
    if (MachineGround::isParallel()) {
        MachineGround::globalCommunicator().allReduce(step, Communicator::MAX);
        MachineGround::globalCommunicator().allReduce(end, Communicator::MIN);
    }
    const std::size_t rows = step > 0.0 ? static_cast<std::size_t>(end / step) : 0;
    std::vector<std::int64_t> cells;
    double emptyStep = 0.0;
    const bool isComplete = history.resample(step, rows, cells, emptyStep);
    if (!isComplete)
        std::cout << "Error detected at time " << emptyStep << std::endl;
    if (GlobalCondition(!isComplete, GlobalCondition::ON_ANY))
        raise(SystemError(FAILED));
    sumCells(cells);
    writeRows(step, cells);
}

void MemoryHistoryFile::sumCells(std::vector<std::int64_t>& cells) {
    if (MachineGround::isParallel() && !cells.empty())
        MachineGround::globalCommunicator().reduce(cells.data(), cells.size(), Communicator::SUM,
                                                   Communicator::masterRank());
}

void MemoryHistoryFile::writeRows(double step, const std::vector<std::int64_t>& cells) const {
    std::string reason;
    if (MachineGround::isSerialOrMaster())
        reason = tryToWrite(step, cells);
    if (!GlobalCondition(!reason.empty(), GlobalCondition::ON_MASTER))
        return;
    if (MachineGround::isParallel())
        MachineGround::globalCommunicator().broadcast(reason, Communicator::masterRank());
    raise(SystemError(std::string(FAILED) + " " + reason));
}

std::string MemoryHistoryFile::tryToWrite(double step, const std::vector<std::int64_t>& cells) const {
    Platform::FileSystem& files = Platform::filesystem();
    const std::wstring path = files.fromSystem(_name);
    const auto describe = [this](int error) {
        return "\"" + _name + "\": " + std::generic_category().message(error ? error : EIO);
    };
    if (!files.canBeWritten(path))
        return describe(ENXIO);
    errno = 0;
    std::ofstream file(_name);
    if (!file)
        return describe(errno);
    const std::size_t rows = cells.size() / COLUMNS;
    file.imbue(std::locale::classic());
    file.precision(countDigits(rows));
    file << "time,virtual,resident,lib,virtualhwm,residenthwm,adjusted_virtual\n";
    for (std::size_t row = 0; row < rows && file; ++row) {
        file << static_cast<double>(row + 1) * step << ',';
        for (std::size_t column = 0; column < COLUMNS; ++column)
            file << cells[row * COLUMNS + column] << ',';
        file << '\n';
    }
    file.close();
    if (file)
        return {};
    const int error = errno;
    if (files.getSize(path) >= 0) // a regular file: a part of a history must not pass for a whole one
        files.deleteFile(path);
    return describe(error);
}
