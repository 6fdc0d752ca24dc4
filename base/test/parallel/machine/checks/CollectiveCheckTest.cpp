#include "machine/checks/CollectiveCheck.h"

#include "machine/Communicator.h"
#include "machine/Machine.h"
#include "machine/messages/CollectiveHistory.h"

#include <gtest/gtest.h>

#include <functional>
#include <numeric>
#include <string>
#include <tuple>
#include <vector>

// The mistakes of these tests finish: an operation is only noted where its messages would wait for ever.

namespace {

using Words = std::vector<std::uint64_t>;

unsigned rank() {
    return Machine::getPartitionId();
}
unsigned lastRank() {
    return Machine::nProcesses() - 1;
}
Communicator& global() {
    return Machine::globalCommunicator();
}

constexpr std::uint64_t BROADCAST_0 = CollectiveHistory::wordOf(Collective::BROADCAST, 8, 0);
constexpr std::uint64_t BROADCAST_1 = CollectiveHistory::wordOf(Collective::BROADCAST, 8, 1);
constexpr std::uint64_t SUM =
    CollectiveHistory::wordOf(Collective::ALL_REDUCE, 8, -1, OXM_MPI_SUM, OXM_MPI_DOUBLE);
constexpr std::uint64_t BARRIER = CollectiveHistory::wordOf(Collective::SYNCHRONISE, 0);

/// Collective: the text of the difference between the ranks after `work`, empty when there is none.
std::string findDifference(const std::function<void()>& work) {
    CollectiveHistory::beginCommand();
    work();
    std::vector<CollectiveCheck::Share> shares;
    Machine::commandCommunicator().allGather(CollectiveCheck::getShare(), shares);
    std::string text;
    if (!CollectiveCheck::agree(shares))
        text = CollectiveCheck::explain(Machine::commandCommunicator(), "Solve", shares);
    CollectiveHistory::endCommand();
    return text;
}

void note(const Communicator& communicator, const Words& words) {
    for (const std::uint64_t word : words)
        CollectiveHistory::of(communicator).noteFromOutside(word);
}

std::unique_ptr<Communicator> makeSub(unsigned first) {
    std::vector<unsigned> ranks(Machine::nProcesses() - first);
    std::iota(ranks.begin(), ranks.end(), first);
    return global().createCommunicator(ranks);
}

/// The beginning of the text, and the ranks as it names them: of two ranks there is no majority.
std::string expected(const std::string& where, const std::string& mistaken, const std::string& others) {
    const std::string start = "The ranks did not call the same collective operations" + where;
    const std::string last = "rank " + std::to_string(lastRank());
    if (lastRank() == 1)
        return start + "rank 0 called " + others + ", " + last + " " + mistaken;
    return start + last + " called " + mistaken + ", the others " + others;
}

} // namespace

TEST(CollectiveCheck, TellsTheFirstCallInWhichOneRankDiffers) {
    if (lastRank() == 0)
        return;
    const std::tuple<const char*, Words, Words, unsigned, std::string, std::string> rows[] = {
        {"another operation",
         {BROADCAST_0},
         {SUM},
         1,
         "broadcast(root 0, 8 bytes)",
         "allReduce(8 bytes, sum, of double)"},
        {"another root",
         {SUM, BROADCAST_1},
         {SUM, BROADCAST_0},
         2,
         "broadcast(root 1, 8 bytes)",
         "broadcast(root 0, 8 bytes)"},
        {"one skipped", {SUM, SUM}, {SUM, SUM, BARRIER}, 3, "nothing more", "synchronise"},
        {"one more", {SUM, BARRIER, SUM}, {SUM, SUM}, 2, "synchronise", "allReduce(8 bytes, sum, of double)"},
        {"two swapped",
         {SUM, BARRIER, SUM},
         {BARRIER, SUM, SUM},
         1,
         "allReduce(8 bytes, sum, of double)",
         "synchronise"},
        {"nothing at all", {}, {BARRIER}, 1, "nothing more", "synchronise"},
    };
    for (const auto& [name, mistaken, right, call, theirs, others] : rows) {
        const std::string text =
            findDifference([&, &mine = rank() == lastRank() ? mistaken : right] { note(global(), mine); });
        EXPECT_EQ(text,
                  expected(" in \"Solve\": from call " + std::to_string(call) + " on, ", theirs, others))
            << name;
    }
}

TEST(CollectiveCheck, SeesRealCallsThatDifferAndFinish) {
    const bool isLast = rank() == lastRank() && lastRank() != 0;
    const auto reduce = [&] {
        int value = 1;
        global().allReduce(value, isLast ? Communicator::MAX : Communicator::SUM);
    };
    const std::string where = " in \"Solve\": from call 1 on, ";
    EXPECT_EQ(findDifference(reduce), lastRank() == 0 ? ""
                                                      : expected(where, "allReduce(4 bytes, max, of int)",
                                                                 "allReduce(4 bytes, sum, of int)"));
}

TEST(CollectiveCheck, AcceptsAllThatMpiAllows) {
    const std::unique_ptr<Communicator> sub = makeSub(lastRank() / 2);
    const std::unique_ptr<Communicator> shared = global().createSharedMemCommunicators();
    const std::pair<const char*, std::function<void()>> rows[] = {
        {"nothing", [] {}},
        {"a communicator of some ranks",
         [&] {
             if (sub)
                 sub->synchronise();
         }},
        {"one for each host", [&] { shared->synchronise(); }},
        {"one that is gone",
         [] {
             if (const auto gone = makeSub(lastRank()))
                 gone->synchronise();
         }},
        {"other lengths",
         [] {
             std::vector<int> all;
             std::vector<unsigned> counts;
             global().allGatherVector(std::vector<int>(rank()), all, counts);
             global().gatherVector(std::vector<int>(rank() == 0 ? 0 : 3), all, counts, lastRank());
         }},
        {"another order of two communicators",
         [&] {
             const auto both = global().createCommunicator({0});
             if (both && rank() == 0)
                 both->synchronise();
             global().synchronise();
         }},
        {"functions",
         [] {
             double value = rank();
             global().allReduce(value, [](const double& a, const double& b) { return a + b; });
         }},
        {"messages",
         [] {
             Communicator::RequestStack requests;
             int value = 0;
             if (rank() == 0 && lastRank() != 0)
                 global().iRecv(value, lastRank(), requests);
             if (rank() == lastRank() && lastRank() != 0)
                 global().iSend(value, 0, requests);
             global().synchronise();
             global().wait(requests);
         }},
        {"the road of commands",
         [] {
             if (rank() == 0)
                 note(Machine::commandCommunicator(), {SUM});
         }},
    };
    for (const auto& [name, work] : rows)
        EXPECT_EQ(findDifference(work), "") << name;
}

TEST(CollectiveCheck, TellsADifferenceOnACommunicatorOfSomeRanks) {
    if (lastRank() < 2)
        return;
    const auto sub = makeSub(1); // all but rank 0
    const std::string where =
        " on a communicator of " + std::to_string(lastRank()) + " ranks in \"Solve\": from call 2 on, ";
    const Words mine = rank() == lastRank() ? Words{SUM, BARRIER} : Words{SUM, SUM};
    std::string text = findDifference([&] {
        if (sub)
            note(*sub, mine);
    });
    const std::string last = "rank " + std::to_string(lastRank());
    const std::string reduced = "allReduce(8 bytes, sum, of double)";
    const std::string start = "The ranks did not call the same collective operations";
    EXPECT_EQ(text, lastRank() == 2 ? start + where + "rank 1 called " + reduced + ", rank 2 synchronise"
                                    : start + where + last + " called synchronise, the others " + reduced);
    // Of one that is freed before the end only the fact is known.
    text = findDifference([&] {
        if (const auto gone = makeSub(1))
            note(*gone, mine);
    });
    EXPECT_EQ(text, start + " on a communicator of some ranks in \"Solve\"");
}

TEST(CollectiveCheck, KeepsTheLastCallsOnly) {
    if (lastRank() == 0)
        return;
    const auto differThen = [](unsigned equalCalls) {
        return findDifference([equalCalls] {
            note(global(), {rank() == lastRank() ? BROADCAST_1 : BROADCAST_0});
            note(global(), Words(equalCalls, SUM));
        });
    };
    const std::string where = " in \"Solve\": from call 1 on, ";
    constexpr unsigned SOME = 20; // calls of the check itself are among them
    EXPECT_EQ(differThen(CollectiveHistory::RING_SIZE - SOME),
              expected(where, "broadcast(root 1, 8 bytes)", "broadcast(root 0, 8 bytes)"));
    const std::string text = differThen(CollectiveHistory::RING_SIZE + SOME);
    EXPECT_EQ(
        text.find(
            "The ranks did not call the same collective operations in \"Solve\": they differ before call "),
        0u)
        << text;
    EXPECT_NE(text.find(", further back than the last 1024 calls, which alone are kept"), std::string::npos)
        << text;
}

TEST(CollectiveCheck, ComparesACommandInsideAnotherByItself) {
    const auto outer = [](std::uint64_t last) {
        return findDifference([last] {
            note(global(), {SUM});
            EXPECT_EQ(findDifference([] { note(global(), {BARRIER, BARRIER}); }), "");
            note(global(), {last});
        });
    };
    EXPECT_EQ(outer(BARRIER), "");
    const std::string text = outer(rank() == lastRank() ? SUM : BARRIER);
    if (lastRank() != 0) {
        EXPECT_EQ(text, expected(" in \"Solve\": from call 2 on, ", "allReduce(8 bytes, sum, of double)",
                                 "synchronise"));
    }
}
