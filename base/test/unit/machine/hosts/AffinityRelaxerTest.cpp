// What the relaxer of bindings does and tells in a process alone and in a job of one rank.

#include "machine/AffinityRelaxer.h"
#include "machine/Affinity.h"
#include "machine/Communicator.h"
#include "machine/MachineHost.h"

#include "parallel/machine/hosts/MachineHostTestAccess.h"
#include "support/ScriptedMpi.h"
#include "unit/machine/LogLines.h"
#include "unit/machine/MachineTestAccess.h"
#include "unit/machine/hardware/AffinityTestAccess.h"

#include <gtest/gtest.h>

#include <memory>

namespace {

/// Bound to one processor, the last that may be used.
class Relaxer : public testing::Test {
protected:
    Relaxer() {
        MachineTestAccess::swapHost(&host);
        AffinityTestAccess::setProcess(topology, bound);
    }
    ~Relaxer() override {
        EXPECT_EQ(Affinity::getProcessAffinity(topology), bound);
        AffinityTestAccess::clearProcess(topology);
        MachineTestAccess::swapHost(nullptr);
    }

    /// The lines of a relaxer around `meanwhile`.
    template <class Meanwhile>
    static std::string linesAround(Meanwhile meanwhile) {
        const LogLines log(OS::Log::DEBUG_LEVEL);
        {
            const AffinityRelaxer relaxer(Machine::HOST_SCOPE, AffinityRelaxer::Key());
            meanwhile();
        }
        return log.text();
    }

    const CpuTopology topology;
    const AffinityMask bound = topology.getLpuMask(
        topology.getLpusFromMask(topology.restrictToAvailableResources(topology.getTopologyMask())).back());
    MachineHost host;
};

TEST_F(Relaxer, LeavesAProcessAloneAsItIs) {
    EXPECT_EQ(linesAround([this] { EXPECT_EQ(Affinity::getProcessAffinity(topology), bound); }),
              "info AffinityRelaxer::Impl::Impl: Affinity relaxer is disabled in serial mode.\n"
              "info AffinityRelaxer::Impl::~Impl: Affinity relaxer is disabled in serial mode, hence no "
              "affinity to restore.\n");
}

class RelaxerOfARank : public Relaxer {
protected:
    RelaxerOfARank() {
        ScriptedMpi::start();
        MachineTestAccess::playRole(Machine::MASTER_MODE, 1, 0);
        _shared = std::make_unique<Communicator>();
        MachineTestAccess::setSharedMemCommunicator(Machine::HOST_SCOPE, _shared.get());
    }
    ~RelaxerOfARank() override {
        MachineTestAccess::setSharedMemCommunicator(Machine::HOST_SCOPE, nullptr);
        _shared.reset();
        MachineTestAccess::playRole(Machine::SERIAL_MODE, 1, 0);
    }
    std::unique_ptr<Communicator> _shared;
    void loseHardware() { MachineHostTestAccess::equip(host, CpuTopology(std::string("no XML"))); }
};

TEST_F(RelaxerOfARank, TellsItsSteps) {
    const std::string mask = topology.printAffinityMask(bound, 60);
    const std::string relaxing =
        "debug AffinityRelaxer::Impl::Impl: #LPUs = " + std::to_string(topology.getNumberLpus()) +
        ", Process affinity mask = " + mask +
        "\ndebug AffinityRelaxer::Impl::Impl: Relaxed affinity mask = " + mask +
        "\ninfo AffinityRelaxer::Impl::Impl: Relaxed affinity mask applied successfully.\n";
    EXPECT_EQ(linesAround([this] { AffinityTestAccess::clearProcess(topology); }),
              relaxing + "info AffinityRelaxer::Impl::~Impl: Successfully applied original affinity mask " +
                  mask + ".\n");
    EXPECT_EQ(linesAround([this] { loseHardware(); }),
              relaxing +
                  "error AffinityRelaxer::Impl::~Impl: Failed to restore original affinity mask "
                  "{- : " +
                  bound.toHexString(1) + "}.\n");
}

TEST_F(RelaxerOfARank, AppliesNoEmptyMask) {
    loseHardware();
    EXPECT_EQ(linesAround([] {}),
              "debug AffinityRelaxer::Impl::Impl: #LPUs = 1, Process affinity mask = {- : 0x0}\n"
              "debug AffinityRelaxer::Impl::Impl: Relaxed affinity mask = {- : 0x0}\n"
              "error AffinityRelaxer::Impl::Impl: Failed to apply relaxed affinity mask.\n"
              "warning AffinityRelaxer::Impl::~Impl: The original process affinity mask is empty.\n");
}

} // namespace
