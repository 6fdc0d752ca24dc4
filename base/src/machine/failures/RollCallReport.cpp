#include "machine/failures/RollCallReport.h"

#include "kernel/Raise.h"
#include "kernel/profile/RankList.h"
#include "machine/failures/FrameNames.h"
#include "machine/failures/RollCallVerdict.h"
#include "platform/StringHelper.h"

#include <algorithm>
#include <cmath>
#include <map>
#include <set>
#include <string_view>
#include <utility>

namespace {

using Group = RollCallReport::Group;

constexpr std::size_t WIDTH = 100;     ///< of the screen
constexpr std::size_t MAX_GROUPS = 8;  ///< that are told
constexpr std::size_t LIST_WIDTH = 40; ///< of ranks
constexpr std::size_t MAX_HOSTS = 3;   ///< that are named
constexpr std::size_t KEY_FRAMES = 4;  ///< by which ranks are alike

std::string number(std::uint64_t count, const char* what) {
    return std::to_string(count) + " " + what + (count == 1 ? "" : "s");
}

std::string_view partBefore(std::string_view text, std::string_view end) {
    return text.substr(0, text.find(end));
}

/// The name of a frame without its place.
std::string functionOf(const std::string& frame) {
    return std::string(partBefore(frame, " ("));
}

std::vector<std::string> framesOf(const RankStanding& standing) {
    std::vector<std::string> frames;
    for (const FrameNames::Frame& frame : FrameNames::pick(standing.stack))
        frames.push_back(frame.describe());
    return frames;
}

/// By which ranks are told apart.
enum class Detail { OPERATION, STACK };

std::string keyOf(const RankStanding& standing, const std::vector<std::string>& frames, Detail detail) {
    const char separator = '\0';
    std::string key = RankStanding::nameOf(standing.state) + (separator + standing.command);
    key += separator + standing.failure + separator + standing.operation + separator + standing.communicator;
    if (RollCallVerdict::isCollective(standing.operation))
        key += separator + std::to_string(standing.partner) + separator + std::to_string(standing.number);
    if (detail == Detail::STACK)
        for (std::size_t i = 0; i < std::min(frames.size(), KEY_FRAMES); ++i)
            key += separator + functionOf(frames[i]);
    return key;
}

/// Keeps what both stacks share: seen from outside, the way to the place. A frame whose line differs keeps
/// its name.
void shareStack(std::vector<std::string>& shared, const std::vector<std::string>& other) {
    std::size_t count = 0;
    while (count < std::min(shared.size(), other.size())) {
        std::string& mine = shared[shared.size() - 1 - count];
        const std::string& theirs = other[other.size() - 1 - count];
        if (functionOf(mine) != functionOf(theirs))
            break;
        if (mine != theirs)
            mine = functionOf(mine);
        ++count;
    }
    shared.erase(shared.begin(), shared.end() - static_cast<std::ptrdiff_t>(count));
}

void add(Group& group, const RankStanding& standing, const std::vector<std::string>& frames) {
    if (group.ranks.empty()) {
        group.first = standing;
        group.stack = frames;
    } else {
        RankStanding& first = group.first;
        group.sameNumbers = group.sameNumbers && first.bytes == standing.bytes &&
                            first.collectives == standing.collectives &&
                            first.operations == standing.operations;
        group.samePartner = group.samePartner && first.partner == standing.partner;
        first.stillSeconds = std::min(first.stillSeconds, standing.stillSeconds);
        first.commandSeconds = std::min(first.commandSeconds, standing.commandSeconds);
        first.processorShare = std::min(first.processorShare, standing.processorShare);
        if (group.stack.empty())
            group.stack = frames;
        else if (!frames.empty())
            shareStack(group.stack, frames);
    }
    group.ranks.push_back(standing.rank);
    if (!standing.host.empty())
        group.hosts.insert(standing.host);
}

std::vector<Group> makeGroups(const std::vector<RankStanding>& standings,
                              const std::vector<std::vector<std::string>>& frames, Detail detail) {
    // A rank whose stack can't be had belongs to the first one in the same operation.
    std::map<std::string, const std::vector<std::string>*> known;
    for (std::size_t i = 0; i < standings.size(); ++i)
        if (!frames[i].empty() && !standings[i].operation.empty())
            known.try_emplace(keyOf(standings[i], {}, Detail::OPERATION), &frames[i]);
    std::map<std::string, Group> byKey;
    for (std::size_t i = 0; i < standings.size(); ++i) {
        const auto alike =
            frames[i].empty() ? known.find(keyOf(standings[i], {}, Detail::OPERATION)) : known.end();
        const std::vector<std::string>& own = alike == known.end() ? frames[i] : *alike->second;
        add(byKey[keyOf(standings[i], own, detail)], standings[i], frames[i]);
    }
    std::vector<Group> groups;
    groups.reserve(byKey.size());
    for (auto& each : byKey)
        groups.push_back(std::move(each.second));
    std::sort(groups.begin(), groups.end(), [](const Group& a, const Group& b) {
        return std::pair(b.ranks.size(), a.ranks.front()) < std::pair(a.ranks.size(), b.ranks.front());
    });
    return groups;
}

/// As fine as the screen allows.
std::vector<Group> makeGroups(const std::vector<RankStanding>& standings) {
    std::vector<std::vector<std::string>> frames;
    frames.reserve(standings.size());
    for (const RankStanding& standing : standings)
        frames.push_back(framesOf(standing));
    std::vector<Group> groups = makeGroups(standings, frames, Detail::STACK);
    return groups.size() <= MAX_GROUPS ? groups : makeGroups(standings, frames, Detail::OPERATION);
}

std::string stateOf(RankStanding::State state, bool one) {
    switch (state) {
    case RankStanding::COMPUTES:
        return one ? "computes" : "compute";
    case RankStanding::WAITS:
        return one ? "waits" : "wait";
    case RankStanding::SLEEPS:
        return one ? "sleeps" : "sleep";
    case RankStanding::STOPPED:
        return one ? "is stopped" : "are stopped";
    case RankStanding::DEAD:
        return one ? "is dead" : "are dead";
    case RankStanding::SILENT:
        break;
    }
    return one ? "does not answer" : "do not answer";
}

std::string hostsOf(const std::set<std::string>& hosts) {
    if (hosts.size() > MAX_HOSTS)
        return std::to_string(hosts.size()) + " hosts";
    std::string text;
    for (const std::string& host : hosts)
        text += (text.empty() ? "" : host == *hosts.rbegin() ? " and " : ", ") + host;
    return text;
}

/// Cuts `text` to the width of the screen.
std::string fit(const std::string& text) {
    if (text.size() <= WIDTH)
        return text;
    std::size_t length = WIDTH - 3;
    while (length > 0 && (static_cast<unsigned char>(text[length]) & 0xC0u) == 0x80u)
        --length;
    return text.substr(0, length) + "...";
}

std::string operationOf(const Group& group) {
    const RankStanding& first = group.first;
    const bool collective = RollCallVerdict::isCollective(first.operation);
    std::string text = "in " + first.operation;
    if (first.partner >= 0 && group.samePartner)
        text += (collective ? ", root " : ", partner ") + std::to_string(first.partner);
    if (!first.communicator.empty())
        text += ", on " + first.communicator;
    if (collective && !first.command.empty())
        text += ", collective " + std::to_string(first.number);
    if (group.sameNumbers)
        text += ", " + number(first.bytes, "byte");
    return text;
}

/// The innermost frames that fit; a place is left out where it doesn't.
std::string stackOf(const std::vector<std::string>& stack) {
    constexpr std::string_view MORE = " < ...";
    std::string text;
    for (const std::string& frame : stack) {
        const std::string before = text + (text.empty() ? "  stack: " : " < ");
        const std::size_t room = WIDTH - std::min(WIDTH, before.size() + MORE.size());
        const std::string shown = frame.size() <= room ? frame : functionOf(frame);
        if (shown.size() > room)
            return text.empty() ? fit(before + shown) : text.append(MORE);
        text = before + shown;
    }
    return text;
}

void addLine(std::string& text, const std::string& line) {
    if (!line.empty())
        text += fit(line) + "\n";
}

bool canTell(const RankStanding& standing) {
    const bool answers = standing.state != RankStanding::SILENT && standing.state != RankStanding::DEAD &&
                         standing.state != RankStanding::STOPPED;
    return answers || !standing.command.empty() || !standing.operation.empty();
}

std::string commandOf(const Group& group) {
    const RankStanding& first = group.first;
    if (first.command.empty())
        return "between commands";
    std::string text =
        "command " + first.command + " for " + RollCallVerdict::describeTime(first.commandSeconds);
    if (group.sameNumbers)
        text += ": " + number(first.collectives, "collective") + ", " + number(first.operations, "operation");
    return text + ", nothing moved for " + RollCallVerdict::describeTime(first.stillSeconds);
}

std::string describe(const Group& group) {
    const RankStanding& first = group.first;
    const bool one = group.ranks.size() == 1;
    std::string head = (one ? "Rank " : "Ranks ") + RankList::describe(group.ranks, LIST_WIDTH);
    if (!one && !head.ends_with("ranks)"))
        head += " (" + number(group.ranks.size(), "rank") + ")";
    head += " " + stateOf(first.state, one);
    if (first.state == RankStanding::COMPUTES)
        head += " (" + std::to_string(std::lround(100.0 * first.processorShare)) + " % of a processor)";
    const std::string hosts = hostsOf(group.hosts);
    std::string text;
    addLine(text, head + (hosts.empty() ? "" : ", on " + hosts));
    if (!canTell(first))
        return text;
    if (!first.operation.empty())
        addLine(text, "  " + operationOf(group));
    addLine(text, "  " + commandOf(group));
    if (!first.failure.empty())
        addLine(text, "  left it by an error: " + StringHelper::toValidUtf8(partBefore(first.failure, "\n")));
    addLine(text, stackOf(group.stack));
    return text;
}

/// Breaks between words.
std::string wrap(const std::string& text) {
    std::string lines;
    std::size_t length = 0;
    for (std::size_t begin = 0; begin < text.size();) {
        const std::size_t end = std::min(text.find(' ', begin), text.size());
        const std::string word = text.substr(begin, end - begin);
        if (length > 0 && length + 1 + word.size() > WIDTH) {
            lines += "\n";
            length = 0;
        }
        lines += (length > 0 ? " " : "") + word;
        length += (length > 0 ? 1 : 0) + word.size();
        begin = end + 1;
    }
    return lines + "\n";
}

Properties toTree(const Group& group) {
    const RankStanding& first = group.first;
    Properties tree;
    tree.set("ranks", RankList::describe(group.ranks));
    tree.set("count", group.ranks.size());
    tree.set("hosts", std::vector<std::string>(group.hosts.begin(), group.hosts.end()));
    tree.set("state", RankStanding::nameOf(first.state));
    tree.set("command", first.command);
    tree.set("commandSeconds", first.commandSeconds);
    tree.set("stillSeconds", first.stillSeconds);
    tree.set("operation", first.operation);
    tree.set("communicator", first.communicator);
    if (group.samePartner)
        tree.set("partner", first.partner);
    if (group.sameNumbers) {
        tree.set("bytes", first.bytes);
        tree.set("collectives", first.collectives);
        tree.set("operations", first.operations);
    }
    tree.set("failure", first.failure);
    tree.set("stack", group.stack);
    return tree;
}

} // namespace

RollCallReport::RollCallReport(std::vector<RankStanding> standings) : _standings(std::move(standings)) {
    std::sort(_standings.begin(), _standings.end(),
              [](const RankStanding& a, const RankStanding& b) { return a.rank < b.rank; });
    _groups = makeGroups(_standings);
    _verdict = RollCallVerdict::tell(_standings);
}

std::string RollCallReport::getText() const {
    std::set<std::string> hosts;
    for (const RankStanding& standing : _standings)
        if (!standing.host.empty())
            hosts.insert(standing.host);
    std::string text = number(_standings.size(), "rank") +
                       (hosts.empty() ? "" : " on " + number(hosts.size(), "host")) + "\n";
    for (std::size_t i = 0; i < std::min(_groups.size(), MAX_GROUPS); ++i)
        text += describe(_groups[i]);
    if (_groups.size() > MAX_GROUPS) {
        std::vector<unsigned> rest;
        for (std::size_t i = MAX_GROUPS; i < _groups.size(); ++i)
            rest.insert(rest.end(), _groups[i].ranks.begin(), _groups[i].ranks.end());
        std::sort(rest.begin(), rest.end());
        addLine(text, "Elsewhere, in " + number(_groups.size() - MAX_GROUPS, "group") + ": " +
                          number(rest.size(), "rank") + ", " + RankList::describe(rest, LIST_WIDTH));
    }
    return text + wrap(_verdict);
}

const RankStanding& RollCallReport::find(unsigned rank) const {
    const auto found = std::find_if(_standings.begin(), _standings.end(),
                                    [rank](const RankStanding& each) { return each.rank == rank; });
    if (found == _standings.end())
        raise(InputError("There is no rank " + std::to_string(rank)));
    return *found;
}

std::string RollCallReport::describeRank(unsigned rank) const {
    const RankStanding& standing = find(rank);
    Group group;
    add(group, standing, {});
    std::string text = describe(group);
    if (standing.pid != 0)
        text += "  process " + std::to_string(standing.pid) + "\n";
    if (!standing.failure.empty())
        text += "  error: " + standing.failure + "\n";
    if (!standing.stack.empty())
        text += "  stack, the innermost frame first:\n";
    for (const std::string& frame : standing.stack)
        text += "    " + frame + "\n";
    return text;
}

Properties RollCallReport::toProperties(std::optional<unsigned> rank) const {
    std::vector<Properties> ranks;
    for (const RankStanding& standing : _standings)
        if (!rank || standing.rank == *rank)
            ranks.push_back(standing.toProperties());
    std::vector<Properties> groups;
    for (const Group& group : _groups)
        groups.push_back(toTree(group));
    Properties tree;
    tree.set("text", rank ? describeRank(*rank) : getText());
    tree.set("verdict", _verdict);
    tree.set("groups", groups);
    tree.set("ranks", ranks);
    return tree;
}
