#include "machine/EventLoggerReporter.h"

#include "machine/Communicator.h"
#include "machine/MachineGround.h"
#include "machine/OutputFileStream.h"
#include "machine/reports/NameUnion.h"

#include "kernel/FileHelper.h"
#include "kernel/OrvexVersion.h"
#include "platform/FileSystem.h"
#include "platform/Process.h"
#include "platform/StringHelper.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <iostream>
#include <iterator>
#include <numeric>
#include <set>
#include <string_view>

namespace {

constexpr unsigned MASTER = Communicator::_master;
constexpr std::size_t LONGEST_NAME = 200; ///< [bytes] that a table shows

Communicator& allRanks() {
    return MachineGround::globalCommunicator();
}

void rule(OStreamWrapper& out, int length, char character) {
    out << '|' + std::string(static_cast<std::size_t>(std::max(length, 0)), character) + "|\n";
}

/// Fills up to `width`.
std::string blanks(const std::string& text, int width) {
    const auto wanted = static_cast<std::size_t>(std::max(width, 0));
    return std::string(wanted - std::min(wanted, text.size()), ' ');
}

std::string getRankText(const std::string& value, unsigned rank) {
    const unsigned largest = MachineGround::nProcesses() > 1 ? MachineGround::nProcesses() - 1 : 0;
    const std::string text = std::to_string(rank);
    return value + " / " + blanks(text, static_cast<int>(std::to_string(largest).size())) + text;
}

template <class IsBetter>
EventLoggerReporter::RankedValue findBest(const std::vector<double>& values, IsBetter isBetter) {
    if (values.empty())
        return {0.0, 0};
    const auto best = std::min_element(values.begin(), values.end(), isBetter);
    return {*best, static_cast<unsigned>(best - values.begin())};
}

template <class Take>
void forEachKey(const std::string& names, const std::vector<unsigned>& lengths, Take take) {
    std::size_t place = 0;
    for (const unsigned length : lengths) {
        take(names.substr(place, length));
        place += length;
    }
}

} // namespace

// ---- Tables.

void EventLoggerReporter::heavyRule(OStreamWrapper& out, int length) {
    rule(out, length, '=');
}

void EventLoggerReporter::lightRule(OStreamWrapper& out, int length) {
    rule(out, length, '-');
}

std::string EventLoggerReporter::getValueRankText(const RankedValue& value) {
    return getRankText(toText(value.first, 3), value.second);
}

std::string EventLoggerReporter::getValueRankText(const std::pair<long long, unsigned>& value) {
    return getRankText(std::to_string(value.first), value.second);
}

int EventLoggerReporter::getNameWidth(std::size_t longest) {
    auto width = static_cast<unsigned>(std::min(longest, LONGEST_NAME));
    if (MachineGround::isParallel())
        allRanks().allReduce(width, Communicator::MAX);
    return static_cast<int>(width) + 4;
}

std::string EventLoggerReporter::cutName(const std::string& name, int width) {
    auto length = static_cast<std::size_t>(std::max(width, 0));
    if (name.size() <= length)
        return name;
    const auto continues = [&](std::size_t at) {
        return (static_cast<unsigned char>(name[at]) & 0xC0) == 0x80;
    };
    while (length > 0 && continues(length))
        --length;
    return name.substr(0, length);
}

std::string EventLoggerReporter::alignLeft(const std::string& text, int width) {
    return text + blanks(text, width);
}

std::string EventLoggerReporter::alignRight(const std::string& text, int width) {
    return blanks(text, width) + text;
}

std::string EventLoggerReporter::toText(double value, int decimals) {
    char text[400]; // the largest number has 309 digits before its decimals
    const auto end = std::to_chars(text, text + sizeof text, value, std::chars_format::fixed, decimals);
    return {text, end.ptr};
}

void EventLoggerReporter::printRankHead(OStreamWrapper& out, int nameWidth, int ruleLength, int rank,
                                        const std::string& titles) {
    const bool isSerial = MachineGround::isSerial();
    heavyRule(out, ruleLength);
    out << "| " + alignLeft(isSerial ? " " : "Proc # ", 7) +
               alignLeft(isSerial ? " " : std::to_string(rank), nameWidth - 11) + " |" + titles + '\n';
    lightRule(out, ruleLength);
}

// ---- Statistics.

EventLoggerReporter::RankedValue EventLoggerReporter::getMaximum(const std::vector<double>& values) {
    return findBest(values, std::greater<>());
}

EventLoggerReporter::RankedValue EventLoggerReporter::getMinimum(const std::vector<double>& values) {
    return findBest(values, std::less<>());
}

double EventLoggerReporter::getMean(const std::vector<double>& values) {
    if (values.empty())
        return 0.0;
    return std::accumulate(values.begin(), values.end(), 0.0) / static_cast<double>(values.size());
}

double EventLoggerReporter::getStandardDeviation(const std::vector<double>& values) {
    if (values.empty())
        return 0.0;
    // Taken from the first value, the sums of equal values are exact, and so their deviation is exactly 0.
    double sum = 0.0;
    double sumOfSquares = 0.0;
    for (const double value : values) {
        const double difference = value - values.front();
        sum += difference;
        sumOfSquares += difference * difference;
    }
    const auto n = static_cast<double>(values.size());
    const double mean = sum / n;
    const double variance = sumOfSquares / n - mean * mean;
    return variance > 0.0 ? std::sqrt(variance) : 0.0;
}

// ---- Events of all ranks.

void EventLoggerReporter::mergeKeys(std::string& names, std::vector<unsigned>& lengths) {
    if (MachineGround::isSerial())
        return;
    std::set<std::string> keys;
    forEachKey(names, lengths, [&](std::string key) { keys.insert(std::move(key)); });
    names.clear();
    lengths.clear();
    for (const std::string& key : NameUnion::unite(allRanks(), std::move(keys))) {
        names += key;
        lengths.push_back(static_cast<unsigned>(key.size()));
    }
}

void EventLoggerReporter::shareEvents(EventLoggerManager& manager) {
    if (MachineGround::isSerial())
        return;
    std::string names;
    std::vector<unsigned> lengths;
    for (const auto& [key, logger] : manager.getEventLoggers()) {
        names += key;
        lengths.push_back(static_cast<unsigned>(key.size()));
    }
    mergeKeys(names, lengths);
    const std::string_view tag = EventLoggerManager::FIELD_TAG;
    forEachKey(names, lengths, [&](const std::string& key) {
        if (manager.getEventLoggers().count(key) != 0)
            return;
        const std::size_t place = key.find(tag);
        manager.createEventLogger(key.substr(0, place), key.substr(place + tag.size()));
    });
}

void EventLoggerReporter::Rows::add(const std::vector<double>& values, std::uint32_t counter,
                                    const std::string& name) {
    for (std::size_t column = 0; column < columns.size(); ++column)
        columns[column].push_back(values[column]);
    counters.push_back(counter);
    names += name;
    offsets.push_back(static_cast<unsigned>(names.size()));
}

void EventLoggerReporter::forEachRank(const Rows& own,
                                      const std::function<void(unsigned rank, const Rows& rows)>& print) {
    if (MachineGround::isSerialOrMaster())
        print(MASTER, own);
    if (MachineGround::isSerial())
        return;
    Communicator& comm = allRanks();
    // The master's turn: without it the rows of all ranks would arrive there at the same time.
    unsigned turn = 0;
    if (comm.myRank() != MASTER) {
        comm.recv(turn, MASTER);
        for (const std::vector<double>& column : own.columns)
            comm.send(column, MASTER);
        comm.send(own.counters, MASTER);
        comm.send(own.offsets, MASTER);
        comm.send(own.names, MASTER);
        return;
    }
    Rows rows(own.columns.size());
    for (unsigned rank = 1; rank < comm.size(); ++rank) {
        comm.send(turn, rank);
        for (std::vector<double>& column : rows.columns)
            comm.recv(column, rank);
        comm.recv(rows.counters, rank);
        comm.recv(rows.offsets, rank);
        comm.recv(rows.names, rank);
        print(rank, rows);
    }
}

void EventLoggerReporter::forEachRow(
    const std::vector<std::vector<double>>& columns,
    const std::function<void(std::size_t row, const std::vector<std::vector<double>>& ofRanks)>& take) {
    constexpr std::size_t LARGEST_BLOCK = 65536; // numbers
    Communicator& comm = allRanks();
    const std::size_t ranks = comm.size();
    const std::size_t width = columns.size();
    const std::size_t rows = columns.front().size();
    const std::size_t most = std::max<std::size_t>(LARGEST_BLOCK / (ranks * width), 1);
    std::vector<std::vector<double>> ofRanks(width, std::vector<double>(ranks));
    std::vector<double> mine;
    std::vector<double> all;
    for (std::size_t first = 0; first < rows; first += most) {
        const std::size_t count = std::min(most, rows - first);
        mine.clear();
        for (std::size_t row = first; row < first + count; ++row)
            for (const std::vector<double>& column : columns)
                mine.push_back(column[row]);
        comm.gather(mine, all, MASTER);
        if (comm.myRank() != MASTER)
            continue;
        for (std::size_t row = 0; row < count; ++row) {
            for (std::size_t i = 0; i < ranks * width; ++i)
                ofRanks[i % width][i / width] = all[(i / width * count + row) * width + i % width];
            take(first + row, ofRanks);
        }
    }
}

// ---- The file.

std::wstring EventLoggerReporter::getStem(const std::wstring& session) {
    const std::wstring path = Platform::filesystem().getFilePath(session);
    return path.empty() ? path : FileHelper::stripPathAndExtension(path);
}

void EventLoggerReporter::openReport(OutputFileStream& out, const std::string& label,
                                     const std::wstring& prefix, const std::string& title,
                                     const std::wstring& session) {
    const Platform::FileSystem& files = Platform::filesystem();
    const std::string cores = std::to_string(MachineGround::nProcesses());
    std::string path;
    if (MachineGround::isSerialOrMaster())
        path = files.toSystem(files.getAbsolutePath(
            prefix + getStem(session) +
            StringHelper::toWString("-np-" + cores + '-' + std::to_string(Platform::process().getPid()) +
                                    ".log")));
    if (MachineGround::isParallel())
        allRanks().broadcast(path, MASTER); // the name of the file that is there, with the writer's process
    std::cout << label << StringHelper::toString(files.fromSystem(path)) << std::endl;
    out.open(path.c_str());
    out << '\n'
        << title << StringHelper::toString(session) << "\n\n"
        << OrvexVersion::getProductName() << '\n';
    out << "Release Version : " << OrvexVersion::_releaseNumber << '\n';
    out << "Release Date    : " << OrvexVersion::_releaseDate << '\n';
    out << "Build ENV       : " << OrvexVersion::_buildEnv << '\n';
    out << "Build ARCH      : " << OrvexVersion::_buildArch << '\n';
    out << "Number of Cores : " << cores << "\n\n";
}

void EventLoggerReporter::closeReport(OutputFileStream& out) {
    out.flush();
    const bool failed = out.fail();
    out.close();
    if (failed)
        std::cout << "Warning: the file of the event log could not be written" << std::endl;
}
