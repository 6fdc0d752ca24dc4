#include "machine/checks/CollectiveCheck.h"

#include "kernel/profile/RankList.h"
#include "machine/Communicator.h"
#include "machine/messages/CollectiveHistory.h"

#include <algorithm>
#include <limits>
#include <map>

namespace {

using Word = std::uint64_t;

/// Above all words. Values stay below 2^63: an MPI library may compare them as signed numbers.
constexpr Word NO_MEMBER = std::numeric_limits<Word>::max() >> 1;
constexpr Word NOTHING = 0; ///< in place of a word that a rank doesn't have

/// Over the ranks that have one; the others give their own identity.
Word findLargest(Communicator& ranks, Word value) {
    ranks.allReduce(value, Communicator::MAX);
    return value;
}

bool isAlike(Communicator& ranks, bool hasOne, Word hash) {
    Word smallest = hasOne ? hash >> 1 : NO_MEMBER;
    Word largest = hasOne ? hash >> 1 : 0;
    ranks.allReduce(smallest, Communicator::MIN);
    ranks.allReduce(largest, Communicator::MAX);
    return smallest >= largest; // without any member the identities are left
}

/// The hash at the index `at`, of the words that are known.
Word hashAt(const CollectiveHistory::Recent& recent, std::uint32_t at) {
    Word hash = recent.before;
    for (std::uint32_t i = recent.first; i < at; ++i)
        hash = CollectiveHistory::extend(hash, recent.words[i - recent.first]);
    return hash;
}

} // namespace

/// The first call in which the ranks differ.
struct CollectiveCheck::Difference {
    unsigned members = 0; ///< of the communicator, 0 when that is gone
    bool isGlobal = false;
    std::uint32_t call = 0;       ///< index of the call
    bool liesBefore = false;      ///< the call before which the difference lies, further back than is known
    std::vector<Word> words = {}; ///< of each rank
};

CollectiveCheck::Share CollectiveCheck::getShare() {
    const CollectiveHistory::Summary summary = CollectiveHistory::summarise();
    return {summary.hash, summary.count, summary.combination};
}

bool CollectiveCheck::agree(const std::vector<Share>& shares) {
    std::uint64_t combination = 0;
    for (const Share& share : shares) {
        if (share[0] != shares.front()[0] || share[1] != shares.front()[1])
            return false;
        combination += share[2];
    }
    return combination == 0;
}

std::string CollectiveCheck::explain(Communicator& ranks, const std::string& command,
                                     const std::vector<Share>& shares) {
    std::string text = "The ranks did not call the same collective operations";
    const bool isGlobal = std::any_of(shares.begin(), shares.end(), [&](const Share& share) {
        return share[0] != shares.front()[0] || share[1] != shares.front()[1];
    });
    const std::optional<std::uint32_t> number =
        isGlobal ? CollectiveHistory::GLOBAL_NUMBER : findCommunicator(ranks);
    const std::string where = " in \"" + command + "\"";
    if (!number)
        return text + " on a communicator of some ranks" + where;
    const Difference difference = findDifference(ranks, *number);
    if (!isGlobal)
        text += difference.members != 0
                    ? " on a communicator of " + std::to_string(difference.members) + " ranks"
                    : " on a communicator of some ranks";
    return text + where + describe(difference);
}

/// The one with the smallest number on which the ranks differ.
std::optional<std::uint32_t> CollectiveCheck::findCommunicator(Communicator& ranks) {
    constexpr int MAX_LOOKED_AT = 1000;
    std::uint32_t number = CollectiveHistory::GLOBAL_NUMBER;
    for (int i = 0; i < MAX_LOOKED_AT; ++i) {
        number = CollectiveHistory::nextUsed(number);
        ranks.allReduce(number, Communicator::MIN);
        if (number == CollectiveHistory::NONE_LEFT)
            break;
        std::uint64_t sum = CollectiveHistory::contributionOf(number);
        ranks.allReduce(sum, Communicator::SUM);
        if (sum != 0)
            return number;
    }
    return std::nullopt;
}

CollectiveCheck::Difference CollectiveCheck::findDifference(Communicator& ranks, std::uint32_t number) {
    const CollectiveHistory::Recent recent = CollectiveHistory::recall(number);
    const auto own = static_cast<std::uint32_t>(recent.first + recent.words.size());
    // The calls that every rank still knows, or didn't make.
    const auto first = static_cast<std::uint32_t>(findLargest(ranks, recent.isMember ? recent.first : 0));
    const auto end = static_cast<std::uint32_t>(findLargest(ranks, recent.isMember ? own : 0));
    Difference difference;
    difference.members = static_cast<unsigned>(findLargest(ranks, recent.size));
    difference.call = first;
    difference.liesBefore = !isAlike(ranks, recent.isMember, own < first ? NOTHING : hashAt(recent, first));
    if (difference.liesBefore)
        return difference;

    std::vector<Word> smallest(end - first, recent.isMember ? NOTHING : NO_MEMBER);
    for (std::uint32_t call = first; recent.isMember && call < own; ++call)
        smallest[call - first] = recent.words[call - recent.first];
    std::vector<Word> largest = smallest;
    if (!recent.isMember)
        std::fill(largest.begin(), largest.end(), 0);
    ranks.allReduce(smallest, Communicator::MIN);
    ranks.allReduce(largest, Communicator::MAX);
    const auto place = std::mismatch(smallest.begin(), smallest.end(), largest.begin()).first;
    difference.call += static_cast<std::uint32_t>(place - smallest.begin());
    const bool isKnown = difference.call >= recent.first && difference.call < own;
    const Word mine = isKnown ? recent.words[difference.call - recent.first] : NOTHING;
    ranks.allGather(recent.isMember ? mine : NO_MEMBER, difference.words);
    return difference;
}

std::string CollectiveCheck::describe(const Difference& difference) {
    if (difference.liesBefore)
        return ": they differ before call " + std::to_string(difference.call + 1) +
               ", further back than the last " + std::to_string(CollectiveHistory::RING_SIZE) +
               " calls, which alone are kept";
    std::map<Word, std::vector<unsigned>> groups;
    std::size_t members = 0;
    for (unsigned rank = 0; rank < difference.words.size(); ++rank)
        if (difference.words[rank] != NO_MEMBER) {
            groups[difference.words[rank]].push_back(rank);
            ++members;
        }
    if (groups.empty())
        return {};
    std::vector<std::pair<Word, std::vector<unsigned>>> rows(groups.begin(), groups.end());
    std::sort(rows.begin(), rows.end(),
              [](const auto& a, const auto& b) { return a.second.front() < b.second.front(); });
    // The one that most ranks called stands last.
    const auto most = std::find_if(rows.begin(), rows.end(),
                                   [members](const auto& row) { return row.second.size() * 2 > members; });
    const bool hasMost = most != rows.end();
    if (hasMost)
        std::rotate(most, most + 1, rows.end());
    std::string text = ": from call " + std::to_string(difference.call + 1) + " on, ";
    for (std::size_t i = 0; i < rows.size(); ++i) {
        const auto& [word, group] = rows[i];
        const bool isRest = hasMost && i + 1 == rows.size();
        text += i == 0 ? "" : ", ";
        text += isRest ? "the others "
                       : (group.size() == 1 ? "rank " : "ranks ") + RankList::describe(group) +
                             (i == 0 ? " called " : " ");
        text += CollectiveHistory::describe(word);
    }
    return text;
}
