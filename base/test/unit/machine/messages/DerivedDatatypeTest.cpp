#include "machine/DerivedDatatype.h"
#include "machine/Communicator.h"
#include "machine/StructDatatype.h"

#include "support/ScriptedMpi.h"
#include "support/Values.h"

#include "unit/machine/Failures.h"

#include <gtest/gtest.h>

namespace {

using Texts = std::vector<std::string>;
using Handles = std::map<std::string, int>;

/// The operations that are for typed heirs only.
class Datatypes : public MpiCore::DerivedDatatype {
public:
    using DerivedDatatype::commitMpiType;
    using DerivedDatatype::defineMpiContiguousType;
    using DerivedDatatype::freeMpiType;
};

TEST(DerivedDatatype, IsResizedOnlyWhereItMustBe) {
    ScriptedMpi& mpi = ScriptedMpi::start();
    int triple = Datatypes::defineMpiContiguousType(3, OXM_MPI_DOUBLE);
    mpi.clearCalls();
    Datatypes::commitMpiType(24, triple);
    EXPECT_EQ(mpi.names(), (Texts{"Type_get_extent", "Type_commit"}));
    mpi.setErrorText(3, "bad type");
    mpi.fail("Type_free", 1, 3);
    EXPECT_EQ(messageOf<NonRecoverableError>([&] { Datatypes::freeMpiType(triple); }),
              "MPI Error : bad type");
    mpi.fail("Type_contiguous", 1, 3);
    EXPECT_EQ(messageOf<NonRecoverableError>([] { Datatypes::defineMpiContiguousType(1, 1); }),
              "MPI Error : bad type");
}

TEST(StructDatatype, IsMadeOnceOfTheMembers) {
    ScriptedMpi& mpi = ScriptedMpi::start();
    MpiCore::finalize(); // forgets what other tests left
    ScriptedMpi::start();
    const int handle = StructDatatype<Particle>::handle();
    EXPECT_EQ(StructDatatype<Particle>::handle(), handle);
    EXPECT_EQ(mpi.callsOf("Type_create_struct").size(), 1u);
    // One inside another is built on it.
    StructDatatype<Swarm>::handle();
    EXPECT_EQ(mpi.liveHandles(), (Handles{{"datatype", 2}}));

    // The message layer takes them away, and a new one gets new ones.
    MpiCore::finalize();
    EXPECT_EQ(mpi.liveHandles(), Handles());
    ScriptedMpi::start();
    StructDatatype<Particle>::handle();
    EXPECT_EQ(mpi.callsOf("Type_create_struct").size(), 1u);
    MpiCore::finalize();

    for (const char* call : {"Type_create_struct", "Type_get_extent", "Type_create_resized", "Type_commit"}) {
        ScriptedMpi::start();
        mpi.fail(call, 1, OXM_MPI_ERR_OTHER);
        EXPECT_NE(messageOf<NonRecoverableError>([] { StructDatatype<Particle>::handle(); }), "") << call;
        EXPECT_EQ(mpi.liveHandles(), Handles()) << call;
        StructDatatype<Swarm>::handle();
        // Closing frees the second one, whatever became of the first, and closes.
        mpi.fail("Type_free", 1, OXM_MPI_ERR_OTHER);
        EXPECT_NE(messageOf<NonRecoverableError>([] { MpiCore::finalize(); }), "");
        EXPECT_EQ(mpi.liveHandles(), (Handles{{"datatype", 1}}));
        EXPECT_EQ(mpi.names().back(), "Finalize");
    }
    ScriptedMpi::start();
}

TEST(CustomReduction, LivesForOneCall) {
    ScriptedMpi& mpi = ScriptedMpi::start();
    mpi.setWorld(1, 3);
    Communicator comm;
    std::vector<std::array<double, 3>> records(2);
    const auto keep = [](const std::array<double, 3>& a, const std::array<double, 3>&) { return a; };
    mpi.clearCalls();
    comm.allReduce(records, keep);
    EXPECT_EQ(mpi.names(),
              (Texts{"Type_contiguous", "Type_commit", "Op_create", "Allreduce", "Op_free", "Type_free"}));
    EXPECT_EQ(mpi.callsOf("Op_create")[0].get("commute"), 1);
    EXPECT_EQ(mpi.callsOf("Allreduce")[0].get("count"), 2);
    for (const auto& [call, message] : {std::pair("Op_create", "Failed to create reduction op"),
                                        std::pair("Op_free", "Failed to delete reduction op")}) {
        mpi.fail(call, 1, OXM_MPI_ERR_OTHER);
        expectAssertion([&] { comm.reduce(records, keep, 1); }, message, "err == OXM_MPI_SUCCESS",
                        "CommunicatorReductions.cpp");
    }
    // Nothing is made for more records than one call takes.
    mpi.clearCalls();
    EXPECT_THROW(Communicator::CustomReductionBuffer(records.data(), 2147483648u), InternalError);
    EXPECT_EQ(mpi.names(), Texts());
    // Without a type there is none to free.
    mpi.fail("Type_contiguous", 1, OXM_MPI_ERR_OTHER);
    EXPECT_THROW(comm.reduce(records, keep, 1), NonRecoverableError);
    EXPECT_EQ(mpi.names(),
              (Texts{"Type_contiguous", "Type_commit", "Op_create", "Reduce", "Error_string", "Op_free"}));
}

} // namespace
