#include "machine/failures/RollCallVerdict.h"

#include "kernel/profile/RankList.h"
#include "machine/failures/FrameNames.h"
#include "platform/StringHelper.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdio>
#include <map>
#include <set>
#include <string_view>
#include <tuple>

namespace {

constexpr std::size_t LIST_WIDTH = 40; ///< of ranks in a sentence
constexpr std::size_t MAX_CAUSES = 3;  ///< that are named
constexpr std::size_t MAX_MESSAGE = 120;

/// For whom a rank waits.
enum class Wait {
    NOBODY,   ///< it is at work, or can't go on, or has left the command
    OTHERS,   ///< for the ranks that aren't in its collective
    PARTNER,  ///< for one rank, in a message
    SOMEBODY, ///< for messages whose other ends aren't known, or in a part of the job
    NEXT      ///< for the next command
};

bool isGlobal(const RankStanding& standing) {
    return standing.communicator.starts_with("global");
}

/// The rank is where all gather their errors.
bool isAtEnd(const RankStanding& standing) {
    return standing.communicator.starts_with("command,") && !standing.command.empty();
}

bool isGone(const RankStanding& standing) {
    return standing.state == RankStanding::DEAD || standing.state == RankStanding::STOPPED ||
           standing.state == RankStanding::SILENT;
}

Wait waitOf(const RankStanding& standing) {
    if (isGone(standing))
        return Wait::NOBODY;
    if (standing.command.empty())
        return Wait::NEXT;
    if (standing.state != RankStanding::WAITS || !standing.failure.empty())
        return Wait::NOBODY;
    if (!isGlobal(standing))
        return Wait::SOMEBODY;
    if (RollCallVerdict::isCollective(standing.operation))
        return Wait::OTHERS;
    return standing.partner >= 0 ? Wait::PARTNER : Wait::SOMEBODY;
}

/// As in "rank 3", "ranks 0,1,4-6".
std::string nameOf(const std::vector<unsigned>& ranks) {
    return (ranks.size() == 1 ? "rank " : "ranks ") + RankList::describe(ranks, LIST_WIDTH);
}

std::string capitalised(std::string text) {
    if (!text.empty())
        text.front() = static_cast<char>(std::toupper(static_cast<unsigned char>(text.front())));
    return text;
}

/// As in "allReduce (collective 41)".
std::string placeOf(const RankStanding& standing) {
    std::string text = standing.operation.empty() ? "an operation" : standing.operation;
    if (RollCallVerdict::isCollective(standing.operation))
        text += " (collective " + std::to_string(standing.number) + ")";
    if (!isGlobal(standing) && !standing.communicator.empty())
        text += " on " + standing.communicator;
    return text;
}

/// Ranks of which the same is told.
struct Cause {
    int order; ///< the clearest first
    std::vector<unsigned> ranks;
    std::string one;  ///< what is seen, of one rank: "computes in solveCell"
    std::string many; ///< the same of several
};

std::string innermost(const RankStanding& standing) {
    const std::vector<FrameNames::Frame> frames = FrameNames::pick(standing.stack);
    return frames.empty() ? std::string() : " in " + frames.front().describe();
}

/// The key by which causes are alike, without what only one rank shows.
std::string innermostFunction(const RankStanding& standing) {
    const std::vector<FrameNames::Frame> frames = FrameNames::pick(standing.stack);
    return frames.empty() ? std::string() : frames.front().function;
}

/// Of a message, cut when it is long.
std::string firstLine(const std::string& text) {
    return text.substr(0, std::min(text.find('\n'), MAX_MESSAGE));
}

Cause describeCause(const RankStanding& standing, bool withPlace) {
    const std::string place = withPlace ? innermost(standing) : std::string();
    const std::string still = "no message for " + RollCallVerdict::describeTime(standing.stillSeconds);
    const std::string share =
        std::to_string(std::lround(100.0 * standing.processorShare)) + " % of a processor";
    switch (standing.state) {
    case RankStanding::DEAD:
        return {0, {}, "is dead", "are dead"};
    case RankStanding::STOPPED:
        return {2, {}, "is stopped", "are stopped"};
    case RankStanding::SILENT: {
        const std::string why = standing.failure.empty() ? "" : " (" + standing.failure + ")";
        return {3, {}, "does not answer" + why, "do not answer" + why};
    }
    case RankStanding::COMPUTES:
    case RankStanding::WAITS:
    case RankStanding::SLEEPS:
        break;
    }
    if (!standing.failure.empty()) {
        const std::string error = "left the command by an error: \"" +
                                  StringHelper::toValidUtf8(firstLine(standing.failure)) + "\"";
        return {1, {}, "has " + error, "have " + error};
    }
    if (standing.command.empty())
        return {4, {}, "runs no command", "run no command"};
    if (standing.state == RankStanding::WAITS && isAtEnd(standing))
        return {6, {}, "has come to the end of the command", "have come to the end of the command"};
    if (standing.state == RankStanding::WAITS)
        return {6, {}, "waits in " + placeOf(standing), "wait in " + placeOf(standing)};
    if (standing.state == RankStanding::SLEEPS)
        return {5, {}, "sleeps" + place + " (" + still + ")", "sleep" + place};
    return {7, {}, "computes" + place + " (" + still + ", " + share + ")", "compute" + place};
}

/// Groups of ranks of which the same is seen, the clearest first.
/// @param places  whether ranks at different places of the program are told apart
std::vector<Cause> listCauses(const std::vector<const RankStanding*>& standings, bool places) {
    std::map<std::tuple<int, std::string, std::string>, Cause> causes;
    for (const RankStanding* const standing : standings) {
        Cause cause = describeCause(*standing, places);
        const std::string detail = cause.order == 1             ? standing->failure
                                   : cause.order == 6           ? placeOf(*standing)
                                   : cause.order >= 5 && places ? innermostFunction(*standing)
                                                                : std::string();
        const auto [found, isNew] =
            causes.try_emplace({cause.order, detail, standing->command}, std::move(cause));
        found->second.ranks.push_back(standing->rank);
    }
    std::vector<Cause> sorted;
    sorted.reserve(causes.size());
    for (auto& each : causes)
        sorted.push_back(std::move(each.second));
    std::stable_sort(sorted.begin(), sorted.end(),
                     [](const Cause& a, const Cause& b) { return a.order < b.order; });
    return sorted;
}

/// The same, told in few words.
std::vector<Cause> listCauses(const std::vector<const RankStanding*>& standings) {
    std::vector<Cause> causes = listCauses(standings, true);
    return causes.size() <= MAX_CAUSES ? causes : listCauses(standings, false);
}

/// As in "rank 2, which computes in solveCell, and rank 4, which is dead".
std::string describeCauses(const std::vector<Cause>& causes) {
    std::string text;
    for (std::size_t i = 0; i < std::min(causes.size(), MAX_CAUSES); ++i) {
        const Cause& cause = causes[i];
        text += (i == 0 ? "" : ", and ") + nameOf(cause.ranks) + ", which " +
                (cause.ranks.size() == 1 ? cause.one : cause.many);
    }
    std::size_t more = 0;
    for (std::size_t i = MAX_CAUSES; i < causes.size(); ++i)
        more += causes[i].ranks.size();
    return more == 0 ? text : text + ", and " + std::to_string(more) + " more ranks";
}

/// As in "Rank 2 is dead; ranks 3-4 compute in solveCell."
std::string sentenceOf(const std::vector<Cause>& causes) {
    std::string text;
    for (std::size_t i = 0; i < std::min(causes.size(), MAX_CAUSES); ++i)
        text += (i == 0 ? "" : "; ") + nameOf(causes[i].ranks) + " " +
                (causes[i].ranks.size() == 1 ? causes[i].one : causes[i].many);
    return capitalised(text) + ".";
}

/// The relation between the ranks of one roll call.
class Relation {
public:
    explicit Relation(const std::vector<RankStanding>& standings) {
        for (const RankStanding& standing : standings) {
            _waits[standing.rank] = waitOf(standing);
            _standings[standing.rank] = &standing;
        }
    }

    std::string tell() const;

private:
    std::vector<const RankStanding*> select(Wait wait) const;
    std::vector<const RankStanding*> findAwaited() const;
    std::string tellIdle() const;
    std::string tellCircle() const;
    std::string tellCauses() const;
    std::string tellLonelyMessage() const;
    std::string tellDifferentCollectives() const;
    std::string tellWaits() const;

    std::map<unsigned, const RankStanding*> _standings;
    std::map<unsigned, Wait> _waits;
};

std::vector<const RankStanding*> Relation::select(Wait wait) const {
    std::vector<const RankStanding*> selected;
    for (const auto& [rank, each] : _waits)
        if (each == wait)
            selected.push_back(_standings.at(rank));
    return selected;
}

/// When all ranks that can are between commands.
std::string Relation::tellIdle() const {
    std::vector<const RankStanding*> gone;
    for (const auto& [rank, standing] : _standings) {
        if (_waits.at(rank) == Wait::NEXT)
            continue;
        if (!isGone(*standing) || !standing->command.empty())
            return {};
        gone.push_back(standing);
    }
    if (gone.empty())
        return "No command runs; all ranks wait for the next.";
    if (gone.size() == _standings.size())
        return {};
    return "No command runs. " + sentenceOf(listCauses(gone));
}

/// Ranks of which each waits for a message of the next.
std::string Relation::tellCircle() const {
    for (const RankStanding* const start : select(Wait::PARTNER)) {
        std::vector<unsigned> path;
        unsigned rank = start->rank;
        while (true) {
            const auto wait = _waits.find(rank);
            if (wait == _waits.end() || wait->second != Wait::PARTNER)
                break;
            const auto seen = std::find(path.begin(), path.end(), rank);
            if (seen != path.end()) {
                const std::vector<unsigned> circle(seen, path.end());
                if (circle.size() == 1)
                    return "Rank " + std::to_string(rank) + " waits in " + _standings.at(rank)->operation +
                           " for itself.";
                if (circle.size() == 2)
                    return "Ranks " + std::to_string(std::min(circle[0], circle[1])) + " and " +
                           std::to_string(std::max(circle[0], circle[1])) + " wait for each other: both in " +
                           _standings.at(circle[0])->operation + ".";
                std::string text = "Ranks wait for each other in a circle: ";
                for (std::size_t i = 0; i < std::min<std::size_t>(circle.size(), 8); ++i)
                    text += std::to_string(circle[i]) + " for ";
                return text + (circle.size() > 8 ? "... for " : "") + std::to_string(circle.front()) + ".";
            }
            path.push_back(rank);
            rank = static_cast<unsigned>(_standings.at(rank)->partner);
        }
    }
    return {};
}

/// The ranks that wait for nobody and for which others wait: all of them when a collective waits, else the
/// ends of the chains of messages.
std::vector<const RankStanding*> Relation::findAwaited() const {
    std::vector<const RankStanding*> idle = select(Wait::NEXT);
    std::vector<const RankStanding*> free = select(Wait::NOBODY);
    free.insert(free.end(), idle.begin(), idle.end());
    if (!select(Wait::OTHERS).empty())
        return free;
    std::set<unsigned> ends;
    for (const RankStanding* const waiter : select(Wait::PARTNER)) {
        unsigned rank = waiter->rank;
        for (std::size_t steps = 0; steps < _waits.size(); ++steps) {
            const auto wait = _waits.find(rank);
            if (wait == _waits.end() || wait->second != Wait::PARTNER)
                break;
            rank = static_cast<unsigned>(_standings.at(rank)->partner);
        }
        ends.insert(rank);
    }
    std::erase_if(free, [&](const RankStanding* each) { return !ends.contains(each->rank); });
    return free;
}

std::string Relation::tellCauses() const {
    std::vector<const RankStanding*> waiters = select(Wait::OTHERS);
    const std::vector<const RankStanding*> partners = select(Wait::PARTNER);
    waiters.insert(waiters.end(), partners.begin(), partners.end());
    std::vector<const RankStanding*> awaited = findAwaited();
    if (awaited.empty() && !select(Wait::OTHERS).empty())
        awaited = select(Wait::SOMEBODY);
    if (waiters.empty() || awaited.empty())
        return {};
    std::map<std::string, std::vector<unsigned>> places;
    for (const RankStanding* const waiter : waiters)
        places[placeOf(*waiter)].push_back(waiter->rank);
    std::vector<std::pair<std::string, std::vector<unsigned>>> sorted(places.begin(), places.end());
    std::stable_sort(sorted.begin(), sorted.end(),
                     [](const auto& a, const auto& b) { return a.second.size() > b.second.size(); });
    std::string text;
    for (std::size_t i = 0; i < std::min(sorted.size(), MAX_CAUSES); ++i) {
        const auto& [place, ranks] = sorted[i];
        const char* const verb = i > 0 ? " in " : ranks.size() == 1 ? " waits in " : " wait in ";
        text += (i == 0 ? "" : ", ") + nameOf(ranks) + verb + place;
    }
    text += (sorted.size() > 1 ? ", for " : " for ") + describeCauses(listCauses(awaited));
    return capitalised(text) + (text.ends_with(".\"") ? "" : ".");
}

/// A message that nobody sends or takes: its other end stands in a collective.
std::string Relation::tellLonelyMessage() const {
    for (const RankStanding* const waiter : select(Wait::PARTNER)) {
        const auto partner = _standings.find(static_cast<unsigned>(waiter->partner));
        if (partner == _standings.end() || _waits.at(partner->first) != Wait::OTHERS)
            continue;
        const bool sends = StringHelper::toLower(waiter->operation).find("send") != std::string::npos;
        return "Rank " + std::to_string(waiter->rank) + " waits in " + waiter->operation + " for rank " +
               std::to_string(partner->first) + ", which stands in " + placeOf(*partner->second) + " and " +
               (sends ? "doesn't receive." : "doesn't send.");
    }
    return {};
}

std::string countOf(std::uint64_t number) {
    return number == 1 ? "one" : std::to_string(number);
}

/// A collective: its number, operation and root.
using Key = std::tuple<std::uint64_t, std::string, int>;

/// As in "allReduce", "broadcast with the root 0".
std::string callOf(const Key& key) {
    const auto& [number, operation, root] = key;
    return operation + (root < 0 ? "" : " with the root " + std::to_string(root));
}

std::string Relation::tellDifferentCollectives() const {
    std::map<Key, std::vector<unsigned>> groups;
    for (const RankStanding* const waiter : select(Wait::OTHERS))
        groups[{waiter->number, waiter->operation, waiter->partner}].push_back(waiter->rank);
    if (groups.size() < 2)
        return {};
    for (auto each = groups.begin(); std::next(each) != groups.end(); ++each)
        if (const auto next = std::next(each); std::get<0>(next->first) == std::get<0>(each->first) &&
                                               groups.size() > 2 && groups.size() <= MAX_CAUSES)
            return "At collective " + std::to_string(std::get<0>(each->first)) +
                   " the ranks call different operations: " + nameOf(each->second) + " " +
                   callOf(each->first) + ", " + nameOf(next->second) + " " + callOf(next->first) + ".";
    if (groups.size() > MAX_CAUSES)
        return "The ranks stand at different collectives: " + nameOf(groups.begin()->second) + " at " +
               std::to_string(std::get<0>(groups.begin()->first)) + ", " + nameOf(groups.rbegin()->second) +
               " at " + std::to_string(std::get<0>(groups.rbegin()->first)) + ", the others in between.";
    auto most = groups.begin();
    for (auto each = groups.begin(); each != groups.end(); ++each)
        if (each->second.size() >= most->second.size())
            most = each;
    const auto odd = std::min_element(groups.begin(), groups.end(), [most](const auto& a, const auto& b) {
        return std::pair(a.first == most->first, a.second.size()) <
               std::pair(b.first == most->first, b.second.size());
    });
    const auto& [number, operation, root] = odd->first;
    const auto& [otherNumber, otherOperation, otherRoot] = most->first;
    const std::string who = capitalised(nameOf(odd->second));
    const bool one = odd->second.size() == 1;
    const std::string others = groups.size() == 2 ? "the others" : nameOf(most->second);
    if (number != otherNumber) {
        const bool less = number < otherNumber;
        return who + (one ? " is" : " are") + " at collective " + std::to_string(number) + " (" + operation +
               "), " + others + " at " + std::to_string(otherNumber) + " (" + otherOperation +
               "): " + (one ? "it has" : "they have") + " called " +
               countOf(less ? otherNumber - number : number - otherNumber) + (less ? " less." : " more.");
    }
    if (operation != otherOperation)
        return who + (one ? " stands" : " stand") + " in " + operation + ", " + others + " in " +
               otherOperation + ", all at collective " + std::to_string(number) +
               ": the ranks call different operations.";
    return who + (one ? " names" : " name") + " the root " + std::to_string(root) + ", " + others +
           " the root " + std::to_string(otherRoot) + ", in " + operation + " (collective " +
           std::to_string(number) + ").";
}

std::string Relation::tellWaits() const {
    const std::vector<const RankStanding*> others = select(Wait::OTHERS);
    if (others.size() == _standings.size())
        return "All ranks stand in the same operation, " + placeOf(*others.front()) +
               ": not a missed collective; slow, or something outside.";
    std::vector<const RankStanding*> all;
    all.reserve(_standings.size());
    for (const auto& each : _standings)
        all.push_back(each.second);
    const std::vector<const RankStanding*> unknown = select(Wait::SOMEBODY);
    return sentenceOf(listCauses(all)) +
           (unknown.empty() ? " No rank waits for another." : " For which ranks they wait can't be seen.");
}

std::string Relation::tell() const {
    if (_standings.empty())
        return "No rank has answered.";
    if (std::string idle = tellIdle(); !idle.empty())
        return idle;
    std::string verdict = tellCircle();
    for (const auto& next : {&Relation::tellCauses, &Relation::tellLonelyMessage,
                             &Relation::tellDifferentCollectives, &Relation::tellWaits}) {
        if (!verdict.empty())
            return verdict;
        verdict = (this->*next)();
    }
    return verdict;
}

} // namespace

std::string RollCallVerdict::tell(const std::vector<RankStanding>& standings) {
    return Relation(standings).tell();
}

bool RollCallVerdict::isCollective(const std::string& operation) {
    constexpr std::array<std::string_view, 7> MESSAGES{"send", "recv", "receive", "probe",
                                                       "wait", "test", "start"};
    const std::string name = StringHelper::toLower(operation);
    return !name.empty() && std::none_of(MESSAGES.begin(), MESSAGES.end(), [&](std::string_view each) {
        return name.find(each) != std::string::npos;
    });
}

std::string RollCallVerdict::describeTime(double seconds) {
    char text[48];
    const auto whole = static_cast<long>(std::lround(seconds));
    if (seconds < 9.95)
        std::snprintf(text, sizeof text, "%.1f s", seconds);
    else if (whole < 120)
        std::snprintf(text, sizeof text, "%ld s", whole);
    else if (whole < 7200)
        std::snprintf(text, sizeof text, "%ld m %ld s", whole / 60, whole % 60);
    else
        std::snprintf(text, sizeof text, "%ld h %ld m", whole / 3600, whole / 60 % 60);
    return text;
}
