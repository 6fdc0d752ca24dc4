#include "client/PostmortemReport.h"

#include "client/Quantity.h"
#include "client/ResponsePrinter.h"
#include "kernel/Properties.h"
#include "kernel/profile/RankList.h"
#include "platform/StringHelper.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdio>
#include <ctime>
#include <map>
#include <set>
#include <sstream>
#include <string_view>
#include <utility>
#include <vector>

namespace {

using Life = ProfileSnapshot::Life;
using Members = std::vector<const ProfileSnapshot*>;

constexpr std::size_t LIST_WIDTH = 40; ///< of ranks
constexpr std::size_t MAX_GROUPS = 8;  ///< that are told
constexpr std::size_t MAX_ROWS = 8;    ///< of a table
constexpr std::size_t MAX_OPERATIONS = 24;

// ---- Words.

std::string number(std::uint64_t count, const char* what) {
    return std::to_string(count) + " " + what + (count == 1 ? "" : "s");
}

std::string format(const char* form, double value) {
    std::array<char, 48> text{};
    std::snprintf(text.data(), text.size(), form, value);
    return text.data();
}

std::string timeText(double seconds) {
    if (seconds <= 0.0)
        return "0 s";
    if (seconds < 1e-3)
        return format("%.0f us", seconds * 1e6);
    if (seconds < 1.0)
        return format("%.1f ms", seconds * 1e3);
    if (seconds < 120.0)
        return format("%.1f s", seconds);
    return seconds < 7200.0 ? format("%.1f min", seconds / 60.0) : format("%.1f h", seconds / 3600.0);
}

std::string percent(double fraction) {
    return format("%.0f %%", 100.0 * fraction);
}

std::string dateText(double time, const char* form = "%Y-%m-%d %H:%M:%S") {
    const auto seconds = static_cast<std::time_t>(time);
    std::tm parts{};
    std::array<char, 48> text{};
    if (localtime_r(&seconds, &parts) != nullptr)
        std::strftime(text.data(), text.size(), form, &parts);
    return text.data();
}

void sortByRank(Members& members) {
    std::sort(members.begin(), members.end(), [](const auto* a, const auto* b) { return a->rank < b->rank; });
}

/// As in "Ranks 0-3,7 (5 ranks)".
std::string ranksText(const Members& members) {
    std::vector<unsigned> ranks;
    ranks.reserve(members.size());
    for (const ProfileSnapshot* member : members)
        ranks.push_back(member->rank);
    std::string text = (ranks.size() == 1 ? "Rank " : "Ranks ") + RankList::describe(ranks, LIST_WIDTH);
    if (ranks.size() > 1 && !text.ends_with("ranks)"))
        text += " (" + number(ranks.size(), "rank") + ")";
    return text;
}

/// Commands around each other, the outermost first.
std::string commandsOf(const ProfileSnapshot& member) {
    std::string text;
    for (const ProfileSnapshot::Command& command : member.commands)
        text += (text.empty() ? "" : " > ") + command.name;
    return text;
}

bool isCollective(const std::string& operation) {
    constexpr std::array<std::string_view, 7> MESSAGES{"send", "recv", "receive", "probe",
                                                       "wait", "test", "start"};
    const std::string name = StringHelper::toLower(operation);
    return std::none_of(MESSAGES.begin(), MESSAGES.end(), [&name](std::string_view word) {
        return name.find(word) != std::string::npos && name != "awaitcommand";
    });
}

/// @param samePartner  whether that of the operation is told
std::string operationText(const ProfileSnapshot::Operation& operation, bool samePartner, bool sameBytes) {
    std::string text = operation.name.empty() ? "an operation" : operation.name;
    if (operation.partner >= 0 && samePartner)
        text += (isCollective(operation.name) ? ", root " : ", partner ") + std::to_string(operation.partner);
    if (!operation.communicator.empty())
        text += ", on " + operation.communicator;
    if (sameBytes && operation.bytes != 0)
        text += ", " + number(operation.bytes, "byte");
    return text;
}

std::string table(const char* title, const std::vector<Properties>& rows) {
    if (rows.empty())
        return {};
    Properties tree;
    tree.set(title, rows);
    std::ostringstream text;
    ResponsePrinter(text).print(tree.toString());
    return "\n" + text.str();
}

// ---- Ranks that stood alike.

const ProfileSnapshot::Operation* lastOperation(const ProfileSnapshot& member) {
    return member.operations.empty() ? nullptr : &member.operations.front();
}

std::string keyOf(const ProfileSnapshot& member) {
    const char separator = '\0';
    std::string key = ProfileSnapshot::nameOf(member.life) + (separator + commandsOf(member)) + separator;
    if (const ProfileSnapshot::Operation* last = lastOperation(member)) {
        key += (last->isOpen ? "in " : "after ") + last->name + separator + last->communicator;
        if (isCollective(last->name))
            key += separator + std::to_string(last->partner);
    }
    return key;
}

/// The largest first.
std::vector<Members> makeGroups(const ProfileJob& job) {
    std::map<std::string, Members> byKey;
    for (const ProfileSnapshot& member : job.getMembers())
        byKey[keyOf(member)].push_back(&member);
    std::vector<Members> groups;
    groups.reserve(byKey.size());
    for (auto& each : byKey)
        groups.push_back(std::move(each.second));
    std::sort(groups.begin(), groups.end(), [](const Members& a, const Members& b) {
        return std::pair(b.size(), a.front()->rank) < std::pair(a.size(), b.front()->rank);
    });
    return groups;
}

std::string stateText(Life life, bool one) {
    switch (life) {
    case Life::LIVES:
        return one ? "lives" : "live";
    case Life::DIED:
        return "died";
    case Life::UNSEEN:
        break;
    }
    return "can't be seen from here";
}

/// A time of all members, as in "19:41:07, 3.2 s before the last activity of the job".
template <class Get>
std::string sinceText(const Members& members, double lastActivity, Get get) {
    double first = get(*members.front());
    double last = first;
    for (const ProfileSnapshot* member : members) {
        first = std::min(first, get(*member));
        last = std::max(last, get(*member));
    }
    std::string text = dateText(first, "%H:%M:%S");
    if (members.front()->life == Life::LIVES)
        return text;
    const double before = lastActivity - last;
    const std::string end =
        (before > 1e-6 ? timeText(before) + " before" : "at") + " the last activity of the job";
    return members.size() == 1 ? text + ", " + end : text + " (the first), " + end + " (the last)";
}

std::string standingText(const Members& members, double lastActivity) {
    const ProfileSnapshot::Operation* const operation = lastOperation(*members.front());
    if (operation == nullptr)
        return " before any message\n";
    const auto all = [&members, operation](auto field) {
        return std::all_of(members.begin(), members.end(), [&](const ProfileSnapshot* each) {
            return each->operations.front().*field == operation->*field; // one key, so all have one
        });
    };
    const std::string what = operationText(*operation, all(&ProfileSnapshot::Operation::partner),
                                           all(&ProfileSnapshot::Operation::bytes));
    std::string text = members.front()->life == Life::DIED ? " " : ", ";
    text += (operation->isOpen ? "in " : "outside of messages, after ") + what + "\n";
    if (!operation->isTimed)
        return text;
    const bool isOpen = operation->isOpen;
    return text + (isOpen ? "  since " : "  it ended at ") +
           sinceText(members, lastActivity,
                     [isOpen](const ProfileSnapshot& each) {
                         const ProfileSnapshot::Operation& last = each.operations.front();
                         return last.began + (isOpen ? 0.0 : last.seconds);
                     }) +
           "\n";
}

std::string commandText(const Members& members) {
    const ProfileSnapshot& first = *members.front();
    if (first.commands.empty())
        return first.depth == 0 ? "  between commands\n" : "  in a command that isn't told\n";
    std::set<std::uint64_t> operations;
    for (const ProfileSnapshot* member : members)
        operations.insert(member->commands.front().operations);
    std::string text = "  in the command " + commandsOf(first) + ", since " +
                       dateText(first.commands.front().began, "%H:%M:%S") + ": ";
    if (operations.size() > 1)
        text += std::to_string(*operations.begin()) + " to ";
    return text + number(*operations.rbegin(), "operation") + "\n";
}

std::string groupText(const Members& members, double lastActivity) {
    std::string text = ranksText(members) + " " + stateText(members.front()->life, members.size() == 1) +
                       standingText(members, lastActivity);
    text += commandText(members);
    unsigned halfWritten = 0;
    for (const ProfileSnapshot* member : members)
        halfWritten += member->halfWritten;
    if (halfWritten != 0)
        text += "  records that were being written, and are left out: " + std::to_string(halfWritten) + "\n";
    return text;
}

/// Points to the ranks that are not where most ranks are.
std::string verdictText(const std::vector<Members>& groups) {
    const ProfileSnapshot& most = *groups.front().front();
    const ProfileSnapshot::Operation* const operation = lastOperation(most);
    Members others;
    for (std::size_t i = 1; i < groups.size(); ++i)
        others.insert(others.end(), groups[i].begin(), groups[i].end());
    const bool isMost = groups.front().size() > others.size() && groups.front().size() > most.ranks / 2;
    if (operation == nullptr || !operation->isOpen || !isCollective(operation->name) || !isMost ||
        others.empty() || !operation->communicator.starts_with("global"))
        return {};
    sortByRank(others);
    return "Most ranks waited in " + operation->name + ". " + ranksText(others) +
           (others.size() == 1 ? " was" : " were") + " not in it.\n";
}

std::string missingText(const ProfileJob& job) {
    constexpr unsigned MAX_RANKS = 1u << 20;
    const unsigned ranks = std::min(job.getFirst().ranks, MAX_RANKS);
    std::vector<unsigned> missing;
    auto member = job.getMembers().begin();
    for (unsigned rank = 0; rank < ranks; ++rank) {
        if (member != job.getMembers().end() && member->rank == rank)
            ++member;
        else
            missing.push_back(rank);
    }
    if (missing.empty())
        return {};
    return (missing.size() == 1 ? "Rank " : "Ranks ") + RankList::describe(missing, LIST_WIDTH) +
           " left no profile here: on another host, ended in order, or removed\n";
}

// ---- Where the time went.

/// A value of each rank.
class Fold {
public:
    void add(double value, unsigned rank) {
        if (_count == 0 || value > _max) {
            _max = value;
            _maxRank = rank;
        }
        _sum += value;
        ++_count;
    }
    double getMean() const { return _count == 0 ? 0.0 : _sum / _count; }
    double getMax() const { return _max; }
    unsigned getMaxRank() const { return _maxRank; }

private:
    double _sum = 0.0;
    double _max = 0.0;
    unsigned _maxRank = 0;
    unsigned _count = 0;
};

double share(double part, double whole) {
    return whole > 0.0 ? part / whole : 0.0;
}

void setFold(Properties& row, const char* name, const Fold& fold, std::string (*show)(double)) {
    row.set(std::string("mean ") + name, show(fold.getMean()));
    row.set(std::string("most ") + name,
            show(fold.getMax()) + " (rank " + std::to_string(fold.getMaxRank()) + ")");
}

/// A command at work, or one that has ended.
struct Spent {
    std::string name;
    double began = 0.0;
    Fold wall = {};
    Fold waiting = {};
    Fold operations = {};
    Fold memory = {};
    bool hasFailed = false;

    Properties toRow(bool isOver) const {
        Properties row;
        row.set("command", name);
        row.set("began", dateText(began, "%H:%M:%S"));
        row.set("time", timeText(wall.getMax()));
        setFold(row, "waiting", waiting, &percent);
        row.set("operations", format("%.0f", operations.getMax()));
        if (isOver) {
            row.set("peak memory", Quantity::bytes(memory.getMax()));
            row.set("end", hasFailed ? "failed" : "done");
        }
        return row;
    }
};

std::vector<Properties> commandRows(const Members& members) {
    std::map<std::pair<std::size_t, std::string>, Spent> byPlace;
    for (const ProfileSnapshot* member : members) {
        for (std::size_t i = 0; i < member->commands.size(); ++i) {
            const ProfileSnapshot::Command& command = member->commands[i];
            Spent& spent =
                byPlace.try_emplace({i, command.name}, Spent{command.name, command.began}).first->second;
            spent.wall.add(command.seconds, member->rank);
            spent.waiting.add(share(command.waitSeconds, command.seconds), member->rank);
            spent.operations.add(static_cast<double>(command.operations), member->rank);
        }
    }
    std::vector<Properties> rows;
    rows.reserve(byPlace.size());
    for (const auto& each : byPlace)
        rows.push_back(each.second.toRow(false));
    return rows;
}

/// All ranks run the same commands, so their numbers are the same.
std::vector<Properties> billRows(const Members& members) {
    std::map<std::pair<std::uint64_t, std::string>, Spent> byNumber;
    for (const ProfileSnapshot* member : members) {
        for (const ProfileSnapshot::Bill& bill : member->bills) {
            Spent& spent = byNumber.try_emplace({bill.number, bill.command}, Spent{bill.command, bill.began})
                               .first->second;
            spent.wall.add(bill.wallSeconds, member->rank);
            spent.waiting.add(share(bill.waitSeconds, bill.wallSeconds), member->rank);
            spent.operations.add(static_cast<double>(bill.operations), member->rank);
            spent.memory.add(static_cast<double>(bill.peakMemory), member->rank);
            spent.hasFailed = spent.hasFailed || bill.hasFailed;
        }
    }
    std::vector<Properties> rows;
    for (auto each = byNumber.rbegin(); each != byNumber.rend() && rows.size() < MAX_ROWS; ++each)
        rows.push_back(each->second.toRow(true));
    return rows;
}

struct EventTime {
    std::string name;
    Fold count = {};
    Fold seconds = {};
    std::vector<unsigned> open = {};
};

/// The longest first.
std::vector<Properties> eventRows(const Members& members) {
    std::map<std::string, EventTime> byName;
    for (const ProfileSnapshot* member : members) {
        for (const ProfileSnapshot::Event& event : member->events) {
            EventTime& time = byName[event.name];
            time.name = event.name;
            time.count.add(static_cast<double>(event.count), member->rank);
            time.seconds.add(event.seconds + event.openSeconds, member->rank);
            if (event.isOpen)
                time.open.push_back(member->rank);
        }
    }
    std::vector<EventTime> times;
    times.reserve(byName.size());
    for (auto& each : byName)
        times.push_back(std::move(each.second));
    std::stable_sort(times.begin(), times.end(), [](const EventTime& a, const EventTime& b) {
        return a.seconds.getMax() > b.seconds.getMax();
    });
    times.resize(std::min(times.size(), MAX_ROWS));
    std::vector<Properties> rows;
    for (const EventTime& time : times) {
        Properties& row = rows.emplace_back();
        row.set("event", time.name);
        row.set("count", format("%.0f", time.count.getMax()));
        setFold(row, "time", time.seconds, &timeText);
        row.set("open on ranks", RankList::describe(time.open, LIST_WIDTH));
    }
    return rows;
}

std::string timesText(const Members& members) {
    return table("Commands at work, up to the last note of each rank", commandRows(members)) +
           table("Commands before, the last one first", billRows(members)) +
           table("Events", eventRows(members));
}

// ---- One rank.

std::vector<Properties> operationRows(const ProfileSnapshot& member) {
    std::vector<Properties> rows;
    for (const ProfileSnapshot::Operation& operation : member.operations) {
        if (rows.size() == MAX_OPERATIONS)
            break;
        Properties& row = rows.emplace_back();
        row.set("number", operation.number);
        row.set("operation", operation.name);
        row.set("communicator", operation.communicator);
        row.set("partner or root", operation.partner < 0 ? "" : std::to_string(operation.partner));
        row.set("bytes", operation.bytes);
        row.set("ago",
                operation.isTimed ? timeText(std::max(0.0, member.moment - operation.began)) : std::string());
        row.set("took", operation.isOpen    ? "open"
                        : operation.isTimed ? timeText(operation.seconds)
                                            : std::string());
    }
    return rows;
}

Members toMembers(const ProfileJob& job) {
    Members members;
    members.reserve(job.getMembers().size());
    for (const ProfileSnapshot& member : job.getMembers())
        members.push_back(&member);
    return members;
}

std::string headText(const ProfileJob& job) {
    const ProfileSnapshot& first = job.getFirst();
    std::string text = "Job " + std::to_string(first.masterPid) + " on " + first.masterHost + ", " +
                       number(first.ranks, "rank") + "; " + number(job.getMembers().size(), "profile") +
                       " here\n";
    if (!first.product.empty())
        text += "  " + first.product + "\n";
    if (!first.job.empty())
        text += "  batch job " + first.job + "\n";
    return text + "  began " + dateText(job.getBegan()) + ", last activity " +
           dateText(job.getLastActivity()) + ", " +
           timeText(std::max(0.0, job.getLastActivity() - job.getBegan())) + " later\n";
}

} // namespace

std::string PostmortemReport::getText() const {
    std::string text = headText(_job);
    const std::vector<Members> groups = makeGroups(_job);
    for (std::size_t i = 0; i < std::min(groups.size(), MAX_GROUPS); ++i)
        text += groupText(groups[i], _job.getLastActivity());
    Members rest;
    for (std::size_t i = MAX_GROUPS; i < groups.size(); ++i)
        rest.insert(rest.end(), groups[i].begin(), groups[i].end());
    sortByRank(rest);
    if (!rest.empty())
        text +=
            ranksText(rest) + " stood elsewhere, in " + number(groups.size() - MAX_GROUPS, "group") + "\n";
    return text + missingText(_job) + verdictText(groups) + timesText(toMembers(_job));
}

std::optional<std::string> PostmortemReport::describeRank(unsigned rank) const {
    for (const ProfileSnapshot& member : _job.getMembers()) {
        if (member.rank != rank)
            continue;
        return groupText({&member}, _job.getLastActivity()) + "  process " + std::to_string(member.pid) +
               " on " + member.host + "; last note at " + dateText(member.lastActivity) +
               "\n  since its start " + number(member.begunOperations, "operation") + " with " +
               Quantity::bytes(static_cast<double>(member.bytes)) + ", waiting for " +
               timeText(member.waitSeconds) + "\n" +
               table("Last operations, the newest first; ago: before the last note", operationRows(member)) +
               timesText({&member});
    }
    return std::nullopt;
}

Properties PostmortemReport::getSummary() const {
    const ProfileSnapshot& first = _job.getFirst();
    std::string command;
    for (const ProfileSnapshot& member : _job.getMembers())
        command = command.empty() ? commandsOf(member) : command;
    Properties tree;
    tree.set("masterProcess", first.masterPid);
    tree.set("masterHost", first.masterHost);
    tree.set("batchJob", first.job);
    tree.set("product", first.product);
    tree.set("ranks", first.ranks);
    tree.set("profiles", _job.getMembers().size());
    tree.set("died", _job.count(Life::DIED));
    tree.set("live", _job.count(Life::LIVES));
    tree.set("command", command);
    tree.set("began", _job.getBegan());
    tree.set("lastActivity", _job.getLastActivity());
    return tree;
}

std::string PostmortemReport::describeTime(double secondsSinceEpoch) {
    return dateText(secondsSinceEpoch);
}

Properties PostmortemReport::toProperties() const {
    std::vector<Properties> members;
    for (const ProfileSnapshot& member : _job.getMembers())
        members.push_back(member.toProperties());
    Properties tree = getSummary();
    tree.set("members", members);
    return tree;
}
