// How the ranks that share memory are found: by the driver where it can, else by their hosts' names.

#include "machine/Communicator.h"
#include "machine/Machine.h"
#include "machine/MachineHost.h"

#include "support/ScriptedMpi.h"
#include "unit/machine/MachineTestAccess.h"

#include <gtest/gtest.h>

#include <memory>

TEST(SharedMemoryCommunicators, AreMadeByTheDriverOrByName) {
    for (const bool hasSharedMemory : {true, false}) {
        ScriptedMpi& mpi = ScriptedMpi::start();
        mpi.setSharedMemorySupport(hasSharedMemory);
        MachineTestAccess::playRole(Machine::MASTER_MODE, 1, 0);
        MachineTestAccess::globalCommunicator() = std::make_unique<Communicator>();
        {
            MachineHost host;
            MachineHost* const before = MachineTestAccess::swapHost(&host);
            mpi.clearCalls();
            MachineTestAccess::buildShmemCommunicators();
            EXPECT_EQ(mpi.callsOf("Comm_split_type").size(), hasSharedMemory ? 1u : 0u);
            // Socket and NUMA node, the three sparse ones, and the host's without the driver's help.
            EXPECT_EQ(mpi.callsOf("Comm_create").size(), hasSharedMemory ? 5u : 6u);
            for (std::size_t scope = 0; scope < Machine::NUMBER_SHMEM_SCOPES; ++scope) {
                auto& shared = MachineTestAccess::sharedMemCommunicators()[scope];
                auto& sparse = MachineTestAccess::sparseCommunicators()[scope];
                EXPECT_EQ(shared->size(), 1u);
                EXPECT_EQ(sparse->size(), 1u);
                shared.reset();
                sparse.reset();
            }
            MachineTestAccess::swapHost(before);
        }
        MachineTestAccess::globalCommunicator().reset();
        MachineTestAccess::playRole(Machine::SERIAL_MODE, 1, 0);
        EXPECT_EQ(mpi.liveHandles()["comm"], 0);
        EXPECT_EQ(mpi.liveHandles()["group"], 0);
    }
}
