// What conditions and checks of a job send, and the assertions that they raise, on a driver that plays the
// others.

#include "machine/Communicator.h"
#include "machine/GlobalErrorCheck.h"
#include "machine/MachineLocks.h"

#include "kernel/OrvexVersion.h"

#include "support/ScriptedMpi.h"
#include "unit/machine/Failures.h"
#include "unit/machine/MachineTestAccess.h"

#include <gtest/gtest.h>

#include <cstring>
#include <memory>

namespace {

using Texts = std::vector<std::string>;

const std::string FOLD = "Allreduce(sendBuffer=IN_PLACE, count=1, datatype=7, op=3, comm=1)";
const std::string MASTER_VALUE = "Bcast(count=1, datatype=1, root=0, comm=1)";
const std::string LINE = "Bcast(count=1, datatype=8, root=0, comm=1)";
const char* const HERE = "base/src/machine/here.cpp";

/// Rank 1 of a job, whose other ranks find what it finds.
class GlobalCheck : public testing::Test {
protected:
    GlobalCheck() {
        mpi.setWorld(1, 12);
        MachineTestAccess::startAfresh();
        play(12);
        MachineTestAccess::makeGlobalCommunicator();
        Machine::getSingleton().setDevErrorChecking(true);
        setTrueRanks(12);
        mpi.clearCalls();
    }
    ~GlobalCheck() override {
        MachineTestAccess::dropGlobalCommunicator();
        MachineTestAccess::startAfresh();
    }

    static void play(unsigned ranks) { MachineTestAccess::playRole(Machine::WORKER_MODE, ranks, 1); }
    /// Of each condition that holds here.
    void setTrueRanks(unsigned count) {
        mpi.setAction("Allreduce", [count](const ScriptedCall& call) {
            *static_cast<unsigned*>(call.addresses.at("recvBuffer")) *= count;
            return OXM_MPI_SUCCESS;
        });
    }
    /// The master stands at line 99 of "far.cpp".
    void leadMasterAstray() {
        mpi.setAction("Bcast", [](const ScriptedCall& call) {
            void* const buffer = call.addresses.at("buffer");
            if (call.get("datatype") == OXM_MPI_INT)
                *static_cast<int*>(buffer) = 99;
            else if (call.get("datatype") == OXM_MPI_UINT64)
                *static_cast<std::uint64_t*>(buffer) = 7;
            else
                std::memcpy(buffer, "far.cpp", 7);
            return OXM_MPI_SUCCESS;
        });
    }

    ScriptedMpi& mpi = ScriptedMpi::start();
    const bool hasChecks = OrvexVersion::isDevelopmentVersion();
};

TEST_F(GlobalCheck, SendsWhatItsModeNeedsAndWithChecksTheLine) {
    const struct {
        GlobalCondition::ModeEnum mode;
        unsigned ranks;
        Texts always, withChecks;
    } rows[] = {
        {GlobalCondition::ON_ALL, 13, {FOLD}, {LINE, FOLD}},
        {GlobalCondition::ON_ANY, 13, {FOLD}, {LINE, FOLD}},
        {GlobalCondition::ON_MASTER, 13, {MASTER_VALUE}, {LINE, FOLD}},
        {GlobalCondition::ON_ALL_INVARIANT, 12, {}, {FOLD, LINE, FOLD}},
        {GlobalCondition::ON_ALL_INVARIANT, 13, {}, {}},
    };
    for (const auto& row : rows)
        for (const bool checks : {true, false}) {
            play(row.ranks);
            setTrueRanks(row.ranks);
            Machine::getSingleton().setDevErrorChecking(checks);
            mpi.clearCalls();
            EXPECT_TRUE(GlobalErrorCheck::holds(true, row.mode, HERE, 5));
            Texts expected = row.always;
            if (checks && hasChecks)
                expected.insert(expected.end(), row.withChecks.begin(), row.withChecks.end());
            EXPECT_EQ(mpi.texts(), expected) << row.mode << ", " << row.ranks << " ranks, checks " << checks;
        }
}

TEST_F(GlobalCheck, IsRefusedInSerialCriticalCode) {
    const Machine::SerialCritical lock;
    expectAssertion([] { GlobalCondition(true, GlobalCondition::ON_ALL_INVARIANT); },
                    "Coding error: GlobalCondition attempted in a serial-critical code section",
                    "! _serialCriticalLock", "GlobalCondition.cpp");
    EXPECT_EQ(mpi.texts(), Texts());
}

TEST_F(GlobalCheck, AFailingMessageOfAnExemptCheckRestoresTheLock) {
    if (!hasChecks)
        return;
    const Machine::ParallelPerformanceCritical lock;
    leadMasterAstray();
    for (int nth = 1; nth <= 5; ++nth) {
        mpi.clearCalls();
        mpi.failAny(nth, OXM_MPI_ERR_OTHER);
        EXPECT_EQ(messageOf<Error>(
                      [] { GlobalErrorCheck::holds(true, GlobalCondition::ON_ALL_INVARIANT, HERE, 5); }),
                  "MPI Error : scripted error 15")
            << nth;
        EXPECT_EQ(mpi.calls().size(), static_cast<std::size_t>(nth) + 1) << "the last asks for the text";
        EXPECT_EQ(Machine::getPerformanceCriticalLock(), 1u) << nth;
    }
}

} // namespace
