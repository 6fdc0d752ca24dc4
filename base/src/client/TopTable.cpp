#include "client/TopTable.h"

#include <algorithm>
#include <cmath>
#include <cstdio>

namespace {

using TopTable::Column;
using TopTable::Row;
using TopTable::Rows;

constexpr double ALIKE = 0.03; ///< difference of shares from the median: a host like the others
constexpr std::size_t MARK_WIDTH = 2;
constexpr unsigned WIDEST = 500; ///< a wider one is no screen, and nothing is cut
constexpr std::size_t LONG_NAME = 24;
constexpr std::size_t SHORT_NAME = 12;

std::string percentOf(double share) {
    return share < 0.0 ? "-" : std::to_string(std::lround(100.0 * share));
}

std::string meanOf(const LiveFigure& figure) {
    return figure.count == 0 ? "-" : percentOf(figure.mean());
}

std::string sizeOf(double bytes) {
    return bytes <= 0.0 ? "-" : TopTable::toSize(bytes);
}

std::string standsIn(const LiveHost& host) {
    if (!host.silence.empty())
        return host.silence;
    const auto [operation, count] = host.getMostCommon();
    if (operation.empty())
        return "";
    return (operation == LiveHost::OUTSIDE ? "(none)" : operation) + " " + std::to_string(count) + " of " +
           std::to_string(host.ranks);
}

std::string secondsOf(double seconds) {
    char text[32];
    std::snprintf(text, sizeof text, seconds < 100.0 ? "%.1f" : "%.0f", seconds);
    return seconds <= 0.0 ? "" : text;
}

struct Choice {
    unsigned from; ///< width of the screen from which the column is shown
    Column column;
};

const std::vector<Choice>& hostColumns() {
    static const std::vector<Choice> COLUMNS{
        {0, {"HOST", SHORT_NAME, true, [](const Row& row) { return row.host->name; }}},
        {60, {"RANKS", 5, false, [](const Row& row) { return std::to_string(row.host->ranks); }}},
        {0, {"CPU%", 5, false, [](const Row& row) { return meanOf(row.host->processorShare); }}},
        {120,
         {"MAXCPU", 6, false,
          [](const Row& row) {
              const LiveFigure& share = row.host->processorShare;
              return share.count == 0 ? std::string("-") : percentOf(share.max);
          }}},
        {0, {"MEM", 6, false, [](const Row& row) { return sizeOf(row.host->memory.total); }}},
        {120, {"MAXMEM", 6, false, [](const Row& row) { return sizeOf(row.host->memory.max); }}},
        {120,
         {"OFRANK", 6, false,
          [](const Row& row) {
              const LiveFigure& memory = row.host->memory;
              return memory.count == 0 ? std::string("-") : std::to_string(memory.maxRank);
          }}},
        {0, {"WAIT%", 5, false, [](const Row& row) { return meanOf(row.host->waitShare); }}},
        {120,
         {"MAXWAIT", 7, false,
          [](const Row& row) {
              const LiveFigure& share = row.host->waitShare;
              return share.count == 0 ? std::string("-") : percentOf(share.max);
          }}},
        {0,
         {"LEAST%", 6, false,
          [](const Row& row) {
              const LiveFigure& share = row.host->waitShare;
              return share.count == 0 ? std::string("-") : percentOf(share.min);
          }}},
        {60,
         {"RANK", 6, false,
          [](const Row& row) {
              const LiveFigure& share = row.host->waitShare;
              return share.count == 0 ? std::string("-") : std::to_string(share.minRank);
          }}},
        {100, {"LOAD", 6, false, [](const Row& row) { return secondsOf(row.host->load); }}},
        {140,
         {"CPUS", 5, false,
          [](const Row& row) {
              return row.host->processors == 0 ? "-" : std::to_string(row.host->processors);
          }}},
        {76,
         {"FREE", 6, false,
          [](const Row& row) { return sizeOf(static_cast<double>(row.host->freeMemory)); }}},
        {60, {"STANDS IN", 0, true, [](const Row& row) { return standsIn(*row.host); }}},
    };
    return COLUMNS;
}

const std::vector<Choice>& rankColumns() {
    static const std::vector<Choice> COLUMNS{
        {0, {"RANK", 7, false, [](const Row& row) { return row.key; }}},
        {60, {"HOST", SHORT_NAME, true, [](const Row& row) { return row.host->name; }}},
        {100, {"PID", 8, false, [](const Row& row) { return std::to_string(row.rank->pid); }}},
        {0, {"CPU%", 5, false, [](const Row& row) { return percentOf(row.rank->processorShare); }}},
        {0, {"MEM", 6, false, [](const Row& row) { return sizeOf(static_cast<double>(row.rank->memory)); }}},
        {0, {"WAIT%", 5, false, [](const Row& row) { return percentOf(row.rank->waitShare); }}},
        {0,
         {"STATE", 8, true, [](const Row& row) { return std::string(LiveRank::nameOf(row.rank->state)); }}},
        {120, {"MESSAGES", 10, false, [](const Row& row) { return std::to_string(row.rank->messages); }}},
        {120,
         {"BYTES", 6, false, [](const Row& row) { return sizeOf(static_cast<double>(row.rank->bytes)); }}},
        {140, {"COMMAND", LONG_NAME, true, [](const Row& row) { return row.rank->command; }}},
        {100, {"FOR S", 6, false, [](const Row& row) { return secondsOf(row.rank->operationSeconds); }}},
        {60, {"STANDS IN", 0, true, [](const Row& row) { return row.rank->operation; }}},
    };
    return COLUMNS;
}

double medianOf(const LiveJob& job, LiveFigure LiveHost::*figure) {
    std::vector<double> means;
    for (const LiveHost& host : job.hosts)
        if ((host.*figure).count > 0)
            means.push_back((host.*figure).mean());
    if (means.empty())
        return 0.0;
    const auto middle = means.begin() + static_cast<std::ptrdiff_t>(means.size() / 2);
    std::nth_element(means.begin(), middle, means.end());
    return *middle;
}

bool isAlike(const LiveHost& host, LiveFigure LiveHost::*figure, double median) {
    return (host.*figure).count > 0 && std::abs((host.*figure).mean() - median) <= ALIKE;
}

/// The marks of a line with these states and extremes.
void markRow(Row& row, bool isBad, bool isSlowest, bool hasMostMemory) {
    row.mark = {isBad ? '!' : isSlowest ? '*' : ' ', hasMostMemory ? '+' : ' '};
    if (isBad)
        row.style = TopStyle::BAD;
    else if (isSlowest)
        row.style = TopStyle::SLOW;
    else if (hasMostMemory)
        row.style = TopStyle::MEMORY;
}

Rows rowsOfHosts(const LiveJob& job) {
    const LiveHost& total = job.total;
    const std::optional<unsigned> slowest = total.getSlowest();
    const LiveHost* const slow = slowest ? job.findHostOf(*slowest, &LiveHost::waitShare, false) : nullptr;
    const LiveHost* const high =
        total.memory.count > 1 ? job.findHostOf(total.memory.maxRank, &LiveHost::memory, true) : nullptr;
    Rows rows;
    for (const LiveHost& host : job.hosts) {
        Row row;
        row.key = host.name;
        row.host = &host;
        const bool isBad =
            host.states[LiveRank::DEAD] + host.states[LiveRank::STOPPED] + host.states[LiveRank::SILENT] > 0;
        markRow(row, isBad, slow == &host, high == &host);
        rows.push_back(std::move(row));
    }
    return rows;
}

void foldAlike(Rows& rows, const LiveJob& job) {
    const double waits = medianOf(job, &LiveHost::waitShare);
    const double works = medianOf(job, &LiveHost::processorShare);
    std::erase_if(rows, [&](const Row& row) {
        return row.style == TopStyle::PLAIN && isAlike(*row.host, &LiveHost::waitShare, waits) &&
               isAlike(*row.host, &LiveHost::processorShare, works);
    });
}

Rows rowsOfRanks(const LiveJob& job, const std::string& wanted) {
    const LiveHost& total = job.total;
    const std::optional<unsigned> slowest = total.getSlowest();
    Rows rows;
    for (const LiveHost& host : job.hosts) {
        if (!wanted.empty() && host.name != wanted)
            continue;
        for (const LiveRank& rank : host.list.empty() ? host.odd : host.list) {
            Row row;
            row.key = std::to_string(rank.rank);
            row.host = &host;
            row.rank = &rank;
            markRow(row, !rank.isAlive() || rank.state == LiveRank::STOPPED, slowest == rank.rank,
                    total.memory.count > 1 && total.memory.maxRank == rank.rank);
            rows.push_back(std::move(row));
        }
    }
    return rows;
}

/// The key that rows are sorted by: the smallest first.
double valueOf(const Row& row, TopView::Sort sort) {
    constexpr double NO_VALUE = 1e300; // at the end
    switch (sort) {
    case TopView::PROCESSOR:
        return row.rank ? -row.rank->processorShare : -row.host->processorShare.mean();
    case TopView::MEMORY:
        return row.rank ? -static_cast<double>(row.rank->memory) : -row.host->memory.total;
    case TopView::WAITING:
        if (row.rank)
            return row.rank->waitShare < 0.0 ? NO_VALUE : row.rank->waitShare;
        return row.host->waitShare.count == 0 ? NO_VALUE : row.host->waitShare.min;
    case TopView::NAME:
        break;
    }
    return row.rank ? row.rank->rank : 0.0; // hosts are equal, by their names
}

void sortRows(Rows& rows, const TopView& view) {
    const auto comesFirst = [&](const Row& a, const Row& b) {
        const double first = valueOf(a, view.sort);
        const double second = valueOf(b, view.sort);
        if (first != second)
            return first < second;
        return a.rank ? a.rank->rank < b.rank->rank : a.key < b.key;
    };
    std::sort(rows.begin(), rows.end(), comesFirst);
    if (view.sort == TopView::WAITING) // what needs a look comes first
        std::stable_partition(rows.begin(), rows.end(),
                              [](const Row& row) { return row.style == TopStyle::BAD; });
    if (view.isReversed)
        std::reverse(rows.begin(), rows.end());
}

} // namespace

Rows TopTable::makeRows(const LiveJob& job, const TopView& view, std::size_t page) {
    Rows rows = view.showsRanks ? rowsOfRanks(job, view.host) : rowsOfHosts(job);
    if (!view.showsRanks && !view.showsAll && rows.size() > page)
        foldAlike(rows, job);
    sortRows(rows, view);
    return rows;
}

std::string TopTable::restOf(const LiveJob& job, const TopView& view, std::size_t rows) {
    const std::string dots = view.isUtf8 ? "\xE2\x80\xA6 " : "... ";
    if (!view.showsRanks)
        return rows >= job.hosts.size() ? std::string()
                                        : dots + std::to_string(job.hosts.size() - rows) +
                                              " hosts within 3 % of the median (a: all)";
    if (job.isListed || job.hosts.empty())
        return {};
    return dots + "only ranks that differ from the others; Enter on a host shows all of its ranks";
}

std::vector<Column> TopTable::chooseColumns(const LiveJob& job, const TopView& view, unsigned width) {
    std::size_t longest = SHORT_NAME;
    for (const LiveHost& host : job.hosts)
        longest = std::max(longest, widthOf(host.name));
    std::vector<Column> columns;
    std::size_t used = MARK_WIDTH;
    for (const Choice& choice : view.showsRanks ? rankColumns() : hostColumns()) {
        if (width < choice.from)
            continue;
        Column column = choice.column;
        if (column.head == "HOST" && width >= 120)
            column.width = width > WIDEST ? longest : std::min(longest, LONG_NAME);
        if (column.width == 0) // the last one takes the rest
            column.width = width > used + 1 ? width - used - 1 : 1;
        used += column.width + 1;
        columns.push_back(column);
    }
    return columns;
}

std::string TopTable::headsOf(const std::vector<Column>& columns) {
    std::string text(MARK_WIDTH, ' ');
    for (const Column& column : columns) {
        const std::string gap(column.width - std::min(column.width, column.head.size()), ' ');
        text += column.isLeft ? column.head + gap : gap + column.head;
        text += ' ';
    }
    text.erase(text.find_last_not_of(' ') + 1);
    return text;
}

std::string TopTable::textOf(const std::vector<Column>& columns, const Row& row) {
    std::string text = row.mark;
    for (const Column& column : columns) {
        const std::string value = cut(column.get(row), column.width);
        const std::string gap(column.width - std::min(column.width, widthOf(value)), ' ');
        text += column.isLeft ? value + gap : gap + value;
        text += ' ';
    }
    text.erase(text.find_last_not_of(' ') + 1);
    return text;
}

std::string TopTable::toSize(double bytes) {
    constexpr const char* UNITS[] = {"", "K", "M", "G", "T", "P"};
    std::size_t unit = 0;
    for (; bytes >= 999.5 && unit + 1 < std::size(UNITS); ++unit)
        bytes /= 1024.0;
    char text[32];
    std::snprintf(text, sizeof text, unit > 0 && bytes < 99.95 ? "%.1f%s" : "%.0f%s", bytes, UNITS[unit]);
    return text;
}

std::string TopTable::toBytes(double bytes) {
    const std::string size = toSize(bytes);
    const std::size_t digits = size.find_first_not_of("0123456789.");
    return digits == size.npos ? size + " B" : size.substr(0, digits) + " " + size.substr(digits) + "iB";
}

std::size_t TopTable::widthOf(std::string_view text) {
    return static_cast<std::size_t>(std::count_if(
        text.begin(), text.end(), [](char c) { return (static_cast<unsigned char>(c) & 0xC0) != 0x80; }));
}

std::string TopTable::cut(const std::string& text, std::size_t width) {
    if (widthOf(text) <= width)
        return text;
    std::size_t end = 0;
    for (std::size_t seen = 0; end < text.size(); ++end)
        if ((static_cast<unsigned char>(text[end]) & 0xC0) != 0x80 && ++seen > width - (width > 0 ? 1 : 0))
            break;
    return width == 0 ? std::string() : text.substr(0, end) + "~";
}
