// The log of a job whose ranks know different events.

#include "machine/Communicator.h"
#include "machine/Machine.h"
#include "machine/MpiStatisticsManager.h"
#include "machine/reports/NameUnion.h"

#include "parallel/harness/ParallelTest.h"
#include "platform/Process.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <regex>

namespace {

/// A static text for each rank.
const char* nameOf(unsigned rank) {
    static const char* const names[] = {"Rank::a", "Rank::b", "Rank::c", "Rank::d", "Rank::e", "Rank::f",
                                        "Rank::g", "Rank::h", "Rank::i", "Rank::j", "Rank::k", "Rank::l",
                                        "Rank::m", "Rank::n", "Rank::o", "Rank::p"};
    return names[rank];
}

TEST(NameUnionOfJob, HasTheNamesOfAllRanks) {
    Communicator& comm = Machine::globalCommunicator();
    const std::string mine = nameOf(comm.myRank());
    std::set<std::string> expected{"", "common"};
    for (unsigned rank = 0; rank < comm.size(); ++rank)
        expected.insert(nameOf(rank));
    EXPECT_EQ(NameUnion::unite(comm, {"", "common", mine}), expected);
    EXPECT_EQ(NameUnion::unite(comm, {}), std::set<std::string>());
}

/// The times left out: the title, then for each rank its class and total rows.
std::string expectedTable(const std::string& title, unsigned ranks, unsigned only) {
    std::string text = "#" + title + "\n";
    for (unsigned rank = 0; rank < ranks; ++rank) {
        text += "processor : " + std::to_string(rank) + "\n";
        if (rank == only)
            for (const char* const label : {"65-256", "total"})
                text += label + (" " + std::to_string(rank + 1)) + "\n";
    }
    return text;
}

/// The same from the file.
std::string readTables(const std::string& path) {
    std::ifstream file(path);
    std::string text;
    const std::regex data(R"(\|\s+\|\s*(\S+)\|\s*(\d+)\|\s*\d+\.\d{6}\|\s*\d+\.\d{6}\|)");
    const std::regex rank(R"(\|processor :\s+(\d+)\|\s+\|\s+\|\s+\|\s+\|)");
    std::smatch found;
    for (std::string line; std::getline(file, line);) {
        EXPECT_EQ(line.size(), 64u);
        if (line.starts_with("|#"))
            text += line.substr(1, line.find_last_not_of(" |")) + "\n";
        else if (std::regex_match(line, found, rank))
            text += "processor : " + found.str(1) + "\n";
        else if (std::regex_match(line, found, data))
            text += found.str(1) + " " + found.str(2) + "\n";
    }
    return text;
}

TEST(MpiStatisticsOfJob, StandInOneLogOfAllRanks) {
    Communicator& comm = Machine::globalCommunicator();
    const unsigned me = comm.myRank();
    comm.synchronise();
    MpiStatisticsManager::enable(false);
    for (unsigned i = 0; i <= me; ++i) {
        MpiStatisticsManager::openGlobalEvent(nameOf(me), 100)->close();
        MpiStatisticsManager::openPt2PtEvent(nameOf(me), 100)->close(me);
    }
    int pid = Platform::process().getPid();
    std::string base = std::filesystem::temp_directory_path() / "OrvexStatistics";
    ASSERT_TRUE(MpiStatisticsManager::getSingleton().report(base));
    MpiStatisticsManager::disable(false);
    MpiStatisticsManager::destroySingleton();
    if (me == 0) {
        base += "-" + std::to_string(pid) + ".log";
        std::string expected;
        for (const char* const kind : {"Global Event : ", "Pt2Pt Event : "})
            for (unsigned rank = 0; rank < comm.size(); ++rank)
                expected += expectedTable(std::string(kind) + nameOf(rank), comm.size(), rank);
        EXPECT_EQ(readTables(base), expected);
        std::filesystem::remove(base);
    }
}

} // namespace
