#include "machine/reports/MpiStatisticsReport.h"

#include "machine/Communicator.h"
#include "machine/reports/NameUnion.h"

#include <algorithm>
#include <iomanip>
#include <locale>
#include <numeric>
#include <set>
#include <sstream>
#include <utility>

namespace {

/// Between the outer bars of a row.
constexpr int WIDTH = 62;

std::string makeRule(char line) {
    return "|" + std::string(WIDTH, line) + "|\n";
}

/// The columns may hold text or numbers.
template <class Bytes, class Events, class Times, class Average>
std::string makeRow(const std::string& rank, const Bytes& bytes, const Events& events, const Times& times,
                    const Average& average) {
    std::ostringstream row;
    row.imbue(std::locale::classic());
    row << std::fixed << '|' << std::setw(15) << rank << '|' << std::setw(13) << bytes << '|' << std::setw(8)
        << events << '|' << std::setw(10) << times << '|' << std::setw(12) << average << "|\n";
    return row.str();
}

std::string makeCountRow(const std::string& label, std::uint64_t count, double seconds) {
    return makeRow("", label, count, seconds, seconds / static_cast<double>(count));
}

std::string makeHead(const std::string& title) {
    std::ostringstream row;
    row << '|' << std::left << std::setw(WIDTH) << title << "|\n";
    return makeRule('=') + row.str() + makeRule('=') +
           makeRow("", "nbytes", "nevents", "times", "avg_t[secs]") + makeRule('-');
}

} // namespace

MpiStatisticsReport::MpiStatisticsReport(Communicator& communicator, const std::string& path,
                                         std::span<const unsigned> lowerBounds)
    : _communicator(&communicator), _lowerBounds(lowerBounds) {
    _file.setBroadcastFlag(true);
    static_cast<void>(_file.open(path.c_str())); // a failure stays in the stream until close()
}

void MpiStatisticsReport::write(const std::string& title, const Events& events) {
    std::set<std::string> names;
    for (const auto& [name, numbers] : events)
        names.insert(name);
    const Numbers none{std::vector<std::uint64_t>(_lowerBounds.size()),
                       std::vector<double>(_lowerBounds.size())};
    for (const std::string& name : NameUnion::unite(*_communicator, std::move(names))) {
        const auto mine = events.find(name);
        writeTable(title + name, mine == events.end() ? none : mine->second);
    }
}

void MpiStatisticsReport::writeTable(const std::string& title, const Numbers& mine) {
    std::vector<double> times;
    std::vector<std::uint64_t> counts;
    _communicator->gather(mine.times, times, Communicator::_master);
    _communicator->gather(mine.counts, counts, Communicator::_master);
    if (std::all_of(counts.begin(), counts.end(), [](std::uint64_t count) { return count == 0; }))
        return; // also on the ranks that get none
    const std::size_t nClasses = _lowerBounds.size();
    _file << makeHead(title);
    for (std::size_t first = 0; first < counts.size(); first += nClasses)
        _file << (first == 0 ? "" : makeRule('-'))
              << makeRank(first / nClasses, counts.data() + first, times.data() + first);
}

/// @param counts, times  of this rank, one for each size class
std::string MpiStatisticsReport::makeRank(std::size_t rank, const std::uint64_t* counts,
                                          const double* times) const {
    const std::size_t nClasses = _lowerBounds.size();
    std::ostringstream name;
    name << "processor : " << std::setw(3) << rank;
    std::string rows = makeRow(name.str(), "", "", "", "");
    for (std::size_t i = 0; i < nClasses; ++i)
        if (counts[i] != 0)
            rows += makeCountRow(makeLabel(i), counts[i], times[i]);
    const std::uint64_t count = std::accumulate(counts, counts + nClasses, std::uint64_t{0});
    if (count != 0)
        rows += makeCountRow("total", count, std::accumulate(times, times + nClasses, 0.0));
    return rows;
}

std::string MpiStatisticsReport::makeLabel(std::size_t sizeClass) const {
    const bool isLast = sizeClass + 1 == _lowerBounds.size();
    return std::to_string(_lowerBounds[sizeClass]) + "-" +
           (isLast ? "inf" : std::to_string(_lowerBounds[sizeClass + 1] - 1));
}

bool MpiStatisticsReport::close() {
    _file.close();
    return !_file.fail();
}
