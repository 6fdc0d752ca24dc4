// The counts of the statistics and their log, on a clock that makes the times exact.

#include "machine/Communicator.h"
#include "machine/MpiStatisticsManager.h"
#include "machine/messages/CommunicatorStatistics.h"

#include "kernel/Controller.h"
#include "kernel/MessagingGate.h"
#include "kernel/Properties.h"
#include "platform/Process.h"

#include "support/TemporaryDirectory.h"
#include "unit/machine/Failures.h"
#include "unit/machine/MachineTestAccess.h"
#include "unit/machine/messages/CommunicatorOperations.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <sstream>
#include <thread>

namespace {

using Manager = MpiStatisticsManager;

/// One rank of a job of 3. Each reading of the clock comes 0.5 s after the one before.
class MpiStatistics : public testing::Test {
protected:
    explicit MpiStatistics(int rank = 0) {
        mpi.setWorld(rank, 3);
        MachineTestAccess::startAfresh();
        MachineTestAccess::playRole(rank == 0 ? Machine::MASTER_MODE : Machine::WORKER_MODE, 3,
                                    unsigned(rank));
        MachineTestAccess::makeGlobalCommunicator();
        Manager::setClock([] { return now += 500000000; });
        Manager::enable(false);
    }
    ~MpiStatistics() override {
        Manager::disable(false);
        Manager::destroySingleton();
        Manager::setClock(nullptr);
        EXPECT_TRUE(MessagingGate::isOpen());
        MachineTestAccess::dropGlobalCommunicator();
        MachineTestAccess::startAfresh();
        MpiCore::finalize();
    }

    static Communicator& comm() { return Machine::globalCommunicator(); }
    std::string base() const { return std::filesystem::path(folder / L"job").string(); }
    std::string report() {

        const std::string path = base() + "-" + std::to_string(Platform::process().getPid()) + ".log";
        testing::internal::CaptureStdout();
        EXPECT_TRUE(Manager::getSingleton().report(base()));
        EXPECT_EQ(testing::internal::GetCapturedStdout(), "MPI Statistics Log : " + path + "\n");
        std::ifstream file(path);
        return {std::istreambuf_iterator<char>(file), {}};
    }

    static inline std::uint64_t now = 0; ///< [ns]
    TemporaryDirectory folder;
    ScriptedMpi& mpi = ScriptedMpi::start();
};

class MpiStatisticsOfRankOne : public MpiStatistics {
protected:
    MpiStatisticsOfRankOne() : MpiStatistics(1) {}
};

/// "<name> <count> ..." as the rows of the operations name an event, with the bytes left out.
template <class Events>
void list(const Events& events, std::map<std::string, std::uint64_t>& counts) {
    for (const auto& [name, event] : events)
        for (std::size_t i = 0; i < Manager::NUMBER_CLASSES; ++i)
            if (event->getCounts()[i] != 0)
                counts[name + " in class " + std::to_string(i)] += event->getCounts()[i];
}

TEST_F(MpiStatisticsOfRankOne, CountEachOperationUnderItsName) {
    std::map<std::string, std::uint64_t> expected;
    std::map<std::string, std::uint64_t> counts;
    std::vector<std::uint64_t> partners(3);
    std::vector<std::uint64_t> counted(3);
    for (const CommunicatorOperation& operation : communicatorOperations()) {
        operation.run(comm());
        for (const std::string& event : operation.events) {
            std::istringstream words(event);
            std::string name;
            unsigned bytes = 0;
            unsigned partner = 0;
            words >> name >> bytes;
            ++expected["Communicator::" + name + " in class " + (bytes < 65 ? "0" : "1")];
            if (words >> partner)
                ++partners[partner];
        }
    }
    list(Manager::getSingleton().getGlobalEvents(), counts);
    list(Manager::getSingleton().getPt2PtEvents(), counts);
    EXPECT_EQ(counts, expected);
    for (const auto& [name, event] : Manager::getSingleton().getPt2PtEvents())
        for (std::size_t rank = 0; rank < counted.size(); ++rank)
            counted[rank] += event->getPartnerCounts()[rank];
    EXPECT_EQ(counted, partners);
}

TEST_F(MpiStatistics, AreOffUntilSwitchedOn) {
    Manager::disable(false);
    comm().synchronise();
    EXPECT_EQ(Manager::openPt2PtEvent("a", 1), nullptr);
    EXPECT_TRUE(Manager::getSingleton().report(base()));
    EXPECT_TRUE(std::filesystem::is_empty(folder.getPath()));
    testing::internal::CaptureStdout();
    Manager::enable(true);
    auto* const event = Manager::openGlobalEvent("a", 1);
    Manager::disable(true);
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              "Enabling MPI statistics collection\nDisabling MPI statistics collection\n");
    ASSERT_TRUE(event && event->isOpen());
    event->close(); // it began while they were on
    EXPECT_EQ(event->getTimes()[0], 0.5);
    EXPECT_EQ(Manager::getSingleton().getGlobalEvents().size(), 1u);
}

TEST_F(MpiStatistics, WriteATableForEachEvent) {
    std::vector<char> data(70000);
    for (const unsigned bytes :
         {64u, 65u, 256u, 257u, 1024u, 1025u, 4096u, 4097u, 16384u, 16385u, 65536u, 65537u, 64u})
        comm().send(data.data(), bytes, 2);
    comm().synchronise();
    Manager::openGlobalEvent("Solver::all", 4294967295u)->close();
    const std::string others = R"(|--------------------------------------------------------------|
|processor :   1|             |        |          |            |
|--------------------------------------------------------------|
|processor :   2|             |        |          |            |
)";
    const auto head = [](const std::string& title) {
        return "|==============================================================|\n|" + title +
               R"(|
|==============================================================|
|               |       nbytes| nevents|     times| avg_t[secs]|
|--------------------------------------------------------------|
|processor :   0|             |        |          |            |
)";
    };
    const std::string expected = head("#Global Event : Communicator::Synchronise                     ") +
                                 R"(|               |         0-64|       1|  0.500000|    0.500000|
|               |        total|       1|  0.500000|    0.500000|
)" + others + head("#Global Event : Solver::all                                   ") +
                                 R"(|               |    65537-inf|       1|  0.500000|    0.500000|
|               |        total|       1|  0.500000|    0.500000|
)" + others + head("#Pt2Pt Event : Communicator::Send                             ") +
                                 R"(|               |         0-64|       2|  1.000000|    0.500000|
|               |       65-256|       2|  1.000000|    0.500000|
|               |     257-1024|       2|  1.000000|    0.500000|
|               |    1025-4096|       2|  1.000000|    0.500000|
|               |   4097-16384|       2|  1.000000|    0.500000|
|               |  16385-65536|       2|  1.000000|    0.500000|
|               |    65537-inf|       1|  0.500000|    0.500000|
|               |        total|      13|  6.500000|    0.500000|
)" + others;
    EXPECT_EQ(report(), expected);
    EXPECT_EQ(report(), expected) << "a report doesn't count itself";
    comm().synchronise();
    std::string later = expected;
    for (const char* const label : {"        0-64", "       total"}) {
        const std::string row = std::string("| ") + label + "|       1|  0.500000|    0.500000|";
        later.replace(later.find(row), row.size(),
                      std::string("| ") + label + "|       2|  1.000000|    0.500000|");
    }
    EXPECT_EQ(report(), later) << "counts go on, and the file is replaced";
}

TEST_F(MpiStatistics, TellOfAFileThatCantBeWritten) {
    comm().synchronise();
    testing::internal::CaptureStdout();
    EXPECT_FALSE(Manager::getSingleton().report(base() + "/none"));
    EXPECT_NE(testing::internal::GetCapturedStdout().find("Warning: The MPI statistics can't be written to "),
              std::string::npos);
    EXPECT_TRUE(Manager::isEnabled());
    EXPECT_NE(report(), "");
}

TEST_F(MpiStatistics, CountWhatFails) {
    mpi.fail("Send", 1, OXM_MPI_ERR_OTHER);
    EXPECT_THROW(comm().send(1, 2), NonRecoverableError);
    const Manager::Pt2PtMpiEvent& event = *Manager::getSingleton().getPt2PtEvents().begin()->second;
    EXPECT_FALSE(event.isOpen());
    EXPECT_EQ(event.getCounts()[0], 1u);
    EXPECT_EQ(event.getTimes()[0], 0.5);
    EXPECT_EQ(event.getPartnerCounts(), (std::vector<std::uint64_t>{1, 0, 0}));
    auto* const opened = Manager::openPt2PtEvent("a", 1);
    expectAssertion([&] { opened->close(3); }, "invalid vector<T> subscript",
                    "partner < _partnerCounts.size()", "MpiStatisticsManager.cpp");
    EXPECT_TRUE(opened->isOpen());
}

TEST_F(MpiStatistics, ASignalClosesOpenEvents) {
    Manager::openGlobalEvent("closed", 0)->close();
    auto* const global = Manager::openGlobalEvent("a", 100);
    auto* const pt2pt = Manager::openPt2PtEvent("b", 8);
    const auto tell = [] {
        Properties signal;
        Controller::getSingleton().getSignalRaisedObservable().notify(signal);
    };
    std::thread(tell).join();
    EXPECT_TRUE(global->isOpen()) << "the fault of another thread";
    tell();
    EXPECT_FALSE(global->isOpen() || pt2pt->isOpen());
    const double time = global->getTimes()[1];
    EXPECT_EQ(time, 1.0);
    global->close(); // the guard of the operation, which the error passes
    pt2pt->close(2);
    EXPECT_EQ(global->getTimes()[1], time);
    EXPECT_EQ(pt2pt->getPartnerCounts(), (std::vector<std::uint64_t>{1, 0, 0}));
    EXPECT_EQ(Manager::getSingleton().getGlobalEvents().at("closed")->getTimes()[0], 0.5);
}

TEST_F(MpiStatistics, BeginAfreshAfterTheirEnd) {
    comm().synchronise();
    Manager::destroySingleton();
    EXPECT_TRUE(Manager::isEnabled());
    comm().synchronise();
    EXPECT_EQ(Manager::getSingleton().getGlobalEvents().at("Communicator::Synchronise")->getCounts()[0], 1u);
}

} // namespace
