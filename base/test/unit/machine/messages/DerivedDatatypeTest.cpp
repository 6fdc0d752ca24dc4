#include "machine/DerivedDatatype.h"
#include "machine/Communicator.h"
#include "machine/StructDatatype.h"

#include "support/ScriptedMpi.h"
#include "support/Values.h"

#include "unit/machine/Failures.h"

#include <gtest/gtest.h>

#include <cstddef>

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
    const std::vector<ScriptedCall> made = mpi.callsOf("Type_create_struct");
    ASSERT_EQ(made.size(), 1u);
    using Numbers = std::vector<long long>;
    EXPECT_EQ(made[0].arrays.at("blockLengths"), (Numbers{1, 3, 1, 3}));
    EXPECT_EQ(made[0].arrays.at("displacements"),
              (Numbers{offsetof(Particle, kind), offsetof(Particle, position), offsetof(Particle, cell),
                       offsetof(Particle, marks)}));
    EXPECT_EQ(made[0].arrays.at("types"),
              (Numbers{OXM_MPI_CHAR, OXM_MPI_DOUBLE, OXM_MPI_INT, OXM_MPI_SHORT}));

    // One inside another is built on it.
    StructDatatype<Swarm>::handle();
    EXPECT_EQ(mpi.callsOf("Type_create_struct")[1].arrays.at("types"), (Numbers{OXM_MPI_BOOL, handle}));
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
    const auto typeOf = [&](auto record) {
        mpi.clearCalls();
        comm.allReduce(record, [](const decltype(record)& a, const decltype(record)&) { return a; });
        return mpi.callsOf("Type_contiguous")[0].text();
    };
    EXPECT_EQ(typeOf(records[0]), "Type_contiguous(count=3, oldType=10)");
    // The message layer's buffers have no room for a gap behind the last member, so such records go as bytes.
    EXPECT_EQ(typeOf(Particle()), "Type_contiguous(count=48, oldType=2)");
    EXPECT_EQ(typeOf(LocatedValue<double>()), "Type_contiguous(count=16, oldType=2)");
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
