#pragma once

#include "machine/MachineExport.h"
#include "machine/failures/RankStanding.h"

#include <optional>
#include <set>
#include <string>
#include <vector>

/// The answer to the question where the ranks stand: ranks alike in groups, one screen also for thousands of
/// ranks, and a verdict. Local; sends no messages.
class ORVEX_MACHINE_EXPORT RollCallReport {
public:
    /// Ranks of one command, at one place in it, in one state.
    struct Group {
        std::vector<unsigned> ranks;
        std::set<std::string> hosts;
        RankStanding first;      ///< stands for all; with the shortest of their times
        bool sameNumbers = true; ///< bytes, collectives and operations
        bool samePartner = true;
        std::vector<std::string> stack; ///< the frames that all share, the innermost first
    };

    explicit RollCallReport(std::vector<RankStanding> standings);

    /// The screen: head, groups, verdict.
    std::string getText() const;
    const std::string& getVerdict() const { return _verdict; }
    const std::vector<Group>& getGroups() const { return _groups; }
    /// One rank in full. @throw InputError when it isn't among the ranks
    std::string describeRank(unsigned rank) const;
    /// "text", "verdict", "groups" and "ranks"; with `rank` the text and the ranks are those of it alone.
    /// @throw InputError when that rank isn't among the ranks
    Properties toProperties(std::optional<unsigned> rank = std::nullopt) const;

private:
    const RankStanding& find(unsigned rank) const;

    std::vector<RankStanding> _standings; ///< in the order of the ranks
    std::vector<Group> _groups;           ///< the biggest first
    std::string _verdict;
};
