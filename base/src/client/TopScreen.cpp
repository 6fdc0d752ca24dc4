#include "client/TopScreen.h"

#include "client/CtlConsole.h"
#include "client/TopTable.h"
#include "platform/StringHelper.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <optional>

namespace {

using TopScreen::Line;
using Lines = std::vector<Line>;

constexpr unsigned SMALL = 16;           ///< rows: below, the head is short
constexpr unsigned PLAIN_COLUMNS = 1000; ///< for the choice of the columns of plain text
constexpr double STALE = 2.5;            ///< looks: an answer that is older is told as old

constexpr const char* HELP[] = {
    "A line is a host, or a rank. Shares are those of the last interval.",
    "",
    "WAIT%   share of the time in operations of the message layer that may wait",
    "LEAST%  that of the host's rank with the least of it, whose number is RANK",
    "CPU%    of one processor, mean of the ranks, all threads",
    "MEM     resident memory; FREE: memory that the host still has",
    "STANDS IN  the operation in which most ranks stand",
    "",
    "*  the slowest rank: the others wait, and it waits least    +  most memory",
    "!  a rank that is dead or stopped, or a host that doesn't answer",
    "",
    "q, Ctrl-C  quit               space     look at once",
    "r          hosts or ranks     Enter     the ranks of the chosen host, and back",
    "P M W N    sort by processor, memory, waiting, name",
    "R          other way round    a         all hosts, also those like the others",
    "p          pause              d         seconds between two looks",
    "arrows, PgUp, PgDn, Home, End: choose a line",
};

/// As in "00:01:23".
std::string toClock(double seconds) {
    const auto whole = static_cast<long long>(std::max(seconds, 0.0));
    char text[48];
    std::snprintf(text, sizeof text, "%02lld:%02lld:%02lld", whole / 3600, whole / 60 % 60, whole % 60);
    return text;
}

std::string toNumber(double value) {
    char text[32];
    if (value < 1e4)
        std::snprintf(text, sizeof text, "%.0f", value);
    else
        std::snprintf(text, sizeof text,
                      value < 1e6   ? "%.3g k"
                      : value < 1e9 ? "%.3g M"
                                    : "%.3g G",
                      value / (value < 1e6   ? 1e3
                               : value < 1e9 ? 1e6
                                             : 1e9));
    return text;
}

std::string toPercent(double share) {
    return std::to_string(std::lround(100.0 * share)) + " %";
}

std::string plural(unsigned count, const std::string& noun) {
    return std::to_string(count) + " " + noun + (count == 1 ? "" : "s");
}

std::string describeJob(const TopFrame& frame) {
    const std::size_t hosts = frame.job.hosts.size();
    return frame.session + "  " + plural(frame.job.total.ranks, "rank") + " on " +
           plural(static_cast<unsigned>(hosts), "host");
}

std::string titleOf(const TopFrame& frame, const TopView& view, unsigned columns) {
    std::string right = view.isPaused ? "paused, " + frame.clock : frame.clock;
    if (frame.age > STALE * std::max(view.seconds, 1.0) && !view.isPaused)
        right = "last answer " + std::to_string(std::lround(frame.age)) + " s ago";
    const std::string left = TopTable::cut("orvexctl top  " + describeJob(frame),
                                           columns - std::min<unsigned>(columns, unsigned(right.size()) + 2));
    const std::size_t gap = columns - std::min<std::size_t>(columns, TopTable::widthOf(left) + right.size());
    return left + std::string(columns >= PLAIN_COLUMNS ? 2 : gap, ' ') + right;
}

std::string barOf(double fraction) {
    constexpr std::size_t WIDTH = 20;
    const auto done = static_cast<std::size_t>(std::lround(std::clamp(fraction, 0.0, 1.0) * WIDTH));
    return "[" + std::string(done, '#') + std::string(WIDTH - done, '-') + "]";
}

/// @param isWide  there is room for more than the name, the time and the progress
std::string commandOf(const TopFrame& frame, bool isWide) {
    if (!frame.running.hasName("command"))
        return frame.job.total.command.empty() ? "no command" : frame.job.total.command;
    std::string text = frame.running.getOr("command", "");
    if (isWide)
        text += " of " + frame.running.getOr("client", "");
    text += "  " + toClock(frame.running.getOr("seconds", 0.0));
    if (!frame.running.hasName("progress"))
        return text;
    const double progress = frame.running.getOr("progress", 0.0);
    text += "  " + barOf(progress) + " " + toPercent(progress);
    const std::string message = frame.running.getOr("message", "");
    return message.empty() ? text : text + "  " + message;
}

/// The costs of the command so far.
std::string billOf(const LiveHost& total) {
    if (total.command.empty())
        return {};
    const double time = total.commandSeconds * total.waiting.count;
    const std::string sign = total.addedMemory.total < 0.0 ? "-" : "+";
    return "so far: processor " + toNumber(total.processor.total) + " s, waiting " +
           toPercent(time > 0.0 ? std::min(total.waiting.total / time, 1.0) : 0.0) + ", " +
           toNumber(total.messages.total) + " messages, " + TopTable::toBytes(total.bytes.total) +
           ", memory " + sign + TopTable::toBytes(std::abs(total.addedMemory.total));
}

std::string statesOf(const LiveHost& total) {
    constexpr std::array WORDS{"compute", "wait", "sleep", "stopped", "dead", "silent"};
    std::string text;
    for (std::size_t state = 0; state < total.states.size(); ++state)
        if (total.states[state] > 0)
            text += (text.empty() ? "" : ", ") + std::to_string(total.states[state]) + " " + WORDS.at(state);
    return text;
}

std::string momentOf(const LiveHost& total) {
    std::string text = "now: " + statesOf(total);
    if (total.processorShare.count > 0)
        text += "; processor " + toPercent(total.processorShare.mean());
    if (total.waitShare.count > 0)
        text += ", waiting " + toPercent(total.waitShare.mean());
    if (total.memory.count > 0)
        text += ", memory " + TopTable::toBytes(total.memory.total);
    return text;
}

std::string placeOf(unsigned rank, const LiveHost* host) {
    return "rank " + std::to_string(rank) + (host ? " on " + host->name : "");
}

Line worstOf(const LiveJob& job) {
    const LiveHost& total = job.total;
    std::string text;
    const std::optional<unsigned> slowest = total.getSlowest();
    if (slowest)
        text = "* " + placeOf(*slowest, job.findHostOf(*slowest, &LiveHost::waitShare, false)) + " waits " +
               toPercent(total.waitShare.min) + ", the others " + toPercent(total.waitShare.meanWithoutMin());
    else if (!total.command.empty() && total.waitShare.count > 1)
        text = "no rank is slower than the others";
    if (total.memory.count > 1)
        text += (text.empty() ? "+ " : "; + ") +
                placeOf(total.memory.maxRank, job.findHostOf(total.memory.maxRank, &LiveHost::memory, true)) +
                " has " + TopTable::toSize(total.memory.max);
    return {text, slowest ? TopStyle::SLOW : TopStyle::PLAIN};
}

/// @param rows  of the screen: a small one gets a short head
Lines headOf(const TopFrame& frame, const TopView& view, unsigned columns, unsigned rows) {
    Lines lines{{titleOf(frame, view, columns), TopStyle::TITLE}};
    if (!frame.failure.empty()) {
        lines.push_back({frame.failure, TopStyle::BAD});
        return lines;
    }
    lines.push_back({commandOf(frame, columns >= 100), TopStyle::PLAIN});
    if (rows >= SMALL) {
        lines.push_back({billOf(frame.job.total), TopStyle::PLAIN});
        lines.push_back({momentOf(frame.job.total), TopStyle::PLAIN});
    }
    lines.push_back(worstOf(frame.job));
    return lines;
}

Line footOf(const TopFrame& frame, const TopView& view) {
    if (!view.prompt.empty())
        return {view.prompt, TopStyle::PLAIN};
    if (!frame.notice.empty())
        return {frame.notice, TopStyle::BAD};
    char delay[32];
    std::snprintf(delay, sizeof delay, "%g", view.seconds);
    return {std::string("q quit  h help  ") + (view.showsRanks ? "r hosts" : "r ranks") + "  PMWN sort (" +
                static_cast<char>(view.sort) + (view.isReversed ? ", reversed" : "") +
                ")  R reverse  p pause  d " + delay + " s",
            TopStyle::FAINT};
}

/// The rows of a screen that are left for the table.
std::size_t pageOf(unsigned rows) {
    constexpr unsigned AROUND = 2; // heads of the columns, keys
    return rows - AROUND - (rows >= SMALL ? 5 : 3);
}

/// The place of the selected line. One that is gone gives its selection up.
std::optional<std::size_t> findSelected(const TopTable::Rows& rows, TopView& view) {
    const auto found = std::find_if(rows.begin(), rows.end(),
                                    [&](const TopTable::Row& row) { return row.key == view.selected; });
    if (found != rows.end() && !view.selected.empty())
        return static_cast<std::size_t>(found - rows.begin());
    view.selected.clear();
    return std::nullopt;
}

void keepInSight(std::size_t& top, std::optional<std::size_t> selected, std::size_t count, std::size_t page) {
    if (selected)
        top = std::clamp(top, *selected + 1 > page ? *selected + 1 - page : 0, *selected);
    top = std::min(top, count > page ? count - page : 0);
}

Lines helpLines(unsigned rows) {
    Lines lines{{"orvexctl top: help", TopStyle::TITLE}};
    for (const char* text : HELP)
        lines.push_back({text, TopStyle::PLAIN});
    lines.resize(rows);
    lines.back() = {"any key: back", TopStyle::FAINT};
    return lines;
}

void cutLines(Lines& lines, unsigned columns, unsigned rows) {
    lines.resize(rows);
    for (Line& line : lines)
        line.text = TopTable::cut(CtlConsole::toVisible(line.text), columns);
}

} // namespace

std::vector<Line> TopScreen::draw(const TopFrame& frame, TopView& view, unsigned columns, unsigned rows) {
    Lines lines;
    if (columns < MIN_COLUMNS || rows < MIN_ROWS) {
        lines.push_back(
            {"at least " + std::to_string(MIN_COLUMNS) + " by " + std::to_string(MIN_ROWS), TopStyle::BAD});
        cutLines(lines, columns, rows);
        return lines;
    }
    if (view.showsHelp) {
        lines = helpLines(rows);
        cutLines(lines, columns, rows);
        return lines;
    }
    lines = headOf(frame, view, columns, rows);
    const std::size_t page = pageOf(rows);
    TopTable::Rows table = TopTable::makeRows(frame.job, view, page);
    const std::string rest = TopTable::restOf(frame.job, view, table.size());
    const std::size_t room = page - (rest.empty() ? 0 : 1);
    const std::optional<std::size_t> selected = findSelected(table, view);
    keepInSight(view.top, selected, table.size(), room);
    const std::vector<TopTable::Column> heads = TopTable::chooseColumns(frame.job, view, columns);
    if (frame.failure.empty())
        lines.push_back({TopTable::headsOf(heads), TopStyle::HEAD});
    for (std::size_t i = view.top; i < std::min(table.size(), view.top + room); ++i)
        lines.push_back(
            {TopTable::textOf(heads, table[i]), selected == i ? TopStyle::SELECTED : table[i].style});
    if (!rest.empty())
        lines.push_back({rest, TopStyle::FAINT});
    lines.resize(rows);
    lines.back() = footOf(frame, view);
    cutLines(lines, columns, rows);
    return lines;
}

std::vector<Line> TopScreen::drawPlain(const TopFrame& frame, const TopView& view) {
    TopView all = view;
    all.showsAll = true;
    Lines lines = headOf(frame, all, PLAIN_COLUMNS, SMALL);
    if (frame.failure.empty()) {
        const TopTable::Rows table = TopTable::makeRows(frame.job, all, 0);
        const std::vector<TopTable::Column> heads = TopTable::chooseColumns(frame.job, all, PLAIN_COLUMNS);
        lines.push_back({TopTable::headsOf(heads), TopStyle::HEAD});
        for (const TopTable::Row& row : table)
            lines.push_back({TopTable::textOf(heads, row), row.style});
        const std::string rest = TopTable::restOf(frame.job, all, table.size());
        if (!rest.empty())
            lines.push_back({rest, TopStyle::FAINT});
    }
    std::erase_if(lines, [](const Line& line) { return line.text.empty(); });
    return lines;
}

void TopScreen::move(const TopFrame& frame, TopView& view, unsigned rows, long lines) {
    if (rows < MIN_ROWS)
        return;
    const TopTable::Rows table = TopTable::makeRows(frame.job, view, pageOf(rows));
    if (table.empty())
        return;
    const std::optional<std::size_t> selected = findSelected(table, view);
    const long last = static_cast<long>(table.size()) - 1;
    const long from =
        selected ? static_cast<long>(*selected) : static_cast<long>(view.top) - (lines > 0 ? 1 : 0);
    view.selected =
        table[static_cast<std::size_t>(std::clamp(from + std::clamp(lines, -last - 1, last + 1), 0L, last))]
            .key;
}
