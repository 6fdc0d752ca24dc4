// The calls that a parallel file makes of the message layer, and what it makes of their answers.

#include "machine/ParallelFile.h"

#include "support/ScriptedMpi.h"
#include "unit/machine/Failures.h"

#include <gtest/gtest.h>

#include <cstring>

namespace {

using Texts = std::vector<std::string>;

constexpr int CREATE = OXM_MPI_MODE_CREATE | OXM_MPI_MODE_RDWR;

class ParallelFileCalls : public testing::Test {
protected:
    Communicator& limit(std::size_t bytes) {
        _communicator.reset();
        mpi.reset();
        mpi.setMaxBufferSize(bytes);
        _communicator = std::make_unique<Communicator>();
        return *_communicator;
    }
    /// "offset:count" of each call of `name`.
    Texts piecesOf(const std::string& name) {
        Texts pieces;
        for (const ScriptedCall& call : mpi.callsOf(name))
            pieces.push_back(std::to_string(call.get("offset")) + ":" + std::to_string(call.get("count")));
        mpi.clearCalls();
        return pieces;
    }

    ScriptedMpi& mpi = ScriptedMpi::start();
    std::vector<double> data = std::vector<double>(9);

private:
    std::unique_ptr<Communicator> _communicator;
};

TEST_F(ParallelFileCalls, OpenWithHintsAndFreeThem) {
    Communicator& communicator = limit(1024);
    mpi.clearCalls();
    ParallelFile file(communicator, L"/data/\u00e4", CREATE | 0x200 | 0x10000);
    EXPECT_TRUE(file.isOpen());
    EXPECT_EQ(&file.communicator(), &communicator);
    Texts hints;
    for (const ScriptedCall& call : mpi.callsOf("Info_set"))
        hints.push_back(call.texts.at("key") + "=" + call.texts.at("value"));
    EXPECT_EQ(hints, (Texts{"panfs_concurrent_write=1", "panfs_layout_stripe_unit=65536",
                            "panfs_layout_total_num_comps=128", "panfs_layout_type=3",
                            "panfs_layout_parity_stripe_width=9", "panfs_layout_parity_stripe_depth=1",
                            "panfs_layout_visit_policy=1", "orvex_echo=1"}));
    EXPECT_EQ(mpi.callsOf("File_open").at(0).get("mode"), CREATE);
    EXPECT_EQ(mpi.callsOf("File_open").at(0).texts.at("fileName"), "/data/\xc3\xa4");
    EXPECT_EQ(mpi.liveHandles()["info"], 0);
    // A second file in the same object takes the place of the first.
    EXPECT_TRUE(file.open(communicator, "\xff", CREATE | OXM_MPI_MODE_TRUNCATE)) << "any bytes are a path";
    EXPECT_EQ(mpi.callsOf("File_open").at(1).get("mode"), CREATE | OXM_MPI_MODE_TRUNCATE);
    EXPECT_EQ(mpi.callsOf("File_open").at(1).texts.at("fileName"), "\xff");
    EXPECT_EQ(mpi.liveHandles()["file"], 1);
    file.close();
    mpi.clearCalls();
    file.close();
    EXPECT_EQ(mpi.names(), Texts());
    // After each failure on the way the object stays closed, nothing is raised, and nothing collective is
    // done.
    for (const auto& [name, nth] : std::vector<std::pair<std::string, int>>{
             {"Info_create", 1}, {"Info_set", 1}, {"Info_set", 8}, {"File_open", 1}, {"Info_free", 1}}) {
        SCOPED_TRACE(name);
        mpi.clearCalls();
        mpi.fail(name, nth, OXM_MPI_ERR_OTHER);
        EXPECT_FALSE(file.open(communicator, L"other", CREATE));
        EXPECT_EQ(mpi.callsOf("File_close").size(), 0u) << "the other ranks wouldn't";
        EXPECT_EQ(mpi.liveHandles()["file"], name == "Info_free" ? 1 : 0);
        EXPECT_EQ(mpi.liveHandles()["info"], name == "Info_free" ? 1 : 0);
        EXPECT_EQ(file.getOpenError(), OXM_MPI_ERR_OTHER);
    }
    EXPECT_FALSE(file.open(communicator, L"missing", OXM_MPI_MODE_RDONLY));
    for (const std::function<void()>& operation : std::vector<std::function<void()>>{
             [&] { file.getFileSize(); }, [&] { file.write(data.data(), 1); },
             [&] { file.read(data.data(), 1); }, [&] { file.writeAt(0, data.data(), 1); },
             [&] { file.readAt(0, data.data(), 1); }, [&] { file.writeAtAll(0, data.data(), 1); },
             [&] { file.readAtAll(0, data.data(), 1); },
             [&] {
                 std::map<std::string, std::string> info;
                 file.getInfo(info);
             }})
        expectAssertion(operation, "file not open", "isOpen()", "ParallelFile.cpp");
}

TEST_F(ParallelFileCalls, CutWhatIsTooLarge) {
    const struct {
        std::size_t limit;
        std::size_t count;
        Texts pieces;
    } rows[] = {
        {72, 9, {"16:9"}},
        {71, 9, {"16:4", "48:5"}},
        {39, 9, {"16:4", "48:2", "64:3"}},
        {24, 7, {"16:3", "40:2", "56:2"}},
        {8, 3, {"16:1", "24:1", "32:1"}},
        {4, 2, {"16:1", "24:1"}}, // less than one element: it goes all the same
        {72, 0, {"16:0"}},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.limit);
        ParallelFile file(limit(row.limit), L"field", CREATE);
        EXPECT_EQ(file.writeAt(16, data.data(), row.count), 0);
        EXPECT_EQ(piecesOf("File_write_at"), row.pieces);
        EXPECT_EQ(file.writeAtAll(16, data.data(), row.count), 0);
        EXPECT_EQ(piecesOf("File_write_at_all"), row.pieces);
        EXPECT_EQ(file.readAt(16, data.data(), row.count), 0);
        EXPECT_EQ(piecesOf("File_read_at"), row.pieces);
        EXPECT_EQ(file.readAtAll(16, data.data(), row.count), 0);
        EXPECT_EQ(piecesOf("File_read_at_all"), row.pieces);
        EXPECT_EQ(file.write(data.data(), row.count), 0);
        EXPECT_EQ(mpi.callsOf("File_write").size(), row.pieces.size());
    }
    // More elements than a call can count, though the limit would let them pass.
    ParallelFile file(limit(std::size_t(1) << 40), L"field", CREATE);
    mpi.setAction("File_write_at", [](const ScriptedCall&) { return OXM_MPI_SUCCESS; });
    const char byte = 0; // never looked at
    EXPECT_EQ(file.writeAt(5, ParallelFile::ConstBuffer{&byte, 0x80000001u, OXM_MPI_CHAR, 1}), 0);
    EXPECT_EQ(piecesOf("File_write_at"), (Texts{"5:1073741824", "1073741829:1073741825"}));
}

TEST_F(ParallelFileCalls, TellOfFailures) {
    Communicator& communicator = limit(16);
    ParallelFile file(communicator, L"field", CREATE);
    mpi.clearCalls();
    mpi.fail("File_write_at", 2, OXM_MPI_ERR_IO);
    EXPECT_EQ(file.writeAt(0, data.data(), 8), OXM_MPI_ERR_IO);
    EXPECT_EQ(piecesOf("File_write_at"), (Texts{"0:2", "16:2"})) << "nothing is written behind the failure";
    mpi.fail("File_write_at_all", 1, OXM_MPI_ERR_NO_SPACE);
    EXPECT_EQ(file.writeAtAll(0, data.data(), 4), OXM_MPI_ERR_NO_SPACE);
    EXPECT_EQ(piecesOf("File_write_at_all").size(), 2u) << "a collective transfer goes on: the others do";
    mpi.fail("File_write", 1, OXM_MPI_ERR_QUOTA);
    EXPECT_EQ(file.write(data.data(), 4), OXM_MPI_ERR_QUOTA);
    EXPECT_EQ(file.close(), OXM_MPI_ERR_IO) << "the first failure of a write";
    ASSERT_TRUE(file.open(communicator, L"field", CREATE));
    mpi.fail("File_close", 1, OXM_MPI_ERR_QUOTA);
    EXPECT_EQ(file.close(), OXM_MPI_ERR_QUOTA);
    ASSERT_TRUE(file.open(communicator, L"field", CREATE));
    mpi.fail("File_read", 1, OXM_MPI_ERR_NO_PARALLEL_IO);
    EXPECT_EQ(messageOf<NonRecoverableError>([&] { file.read(data.data(), 1); }),
              "Parallel IO is not supported with this MPI Distribution");
    mpi.fail("File_get_size", 1, OXM_MPI_ERR_NO_FUNCTION);
    EXPECT_EQ(messageOf<NonRecoverableError>([&] { file.getFileSize(); }),
              "Error accessing MPI function that is not supported");
    mpi.setErrorText(OXM_MPI_ERR_IO, "the disk has gone");
    EXPECT_EQ(ParallelFile::getErrorStr(OXM_MPI_ERR_IO), "the disk has gone");
    mpi.setErrorText(OXM_MPI_ERR_NO_SPACE, "full");
    EXPECT_EQ(ParallelFile::getErrorStr(OXM_MPI_ERR_NO_SPACE), "full. Possibly out of disk space. ");
}

TEST_F(ParallelFileCalls, TellTheLayout) {
    const struct {
        std::string type;
        std::string width;
        std::string told;
    } rows[] = {
        {"", "", "alignment_size=2097152 "},
        {"2", "9", "alignment_size=2097152 layout_type=RAID0 number_comp=8 stripe_unit=65536 "},
        {"4", "9", "alignment_size=2097152 layout_type=RAID10 number_comp=8 stripe_unit=65536 "},
        {"5", "9", "alignment_size=2097152 number_comp=8 stripe_unit=65536 "},
        {"3", "9",
         "alignment_size=458752 layout_type=RAID5 number_comp=8 raid5_depth=2 raid5_width=8 "
         "stripe_unit=65536 "},
        {"3", "2",
         "alignment_size=65536 layout_type=RAID5 number_comp=8 raid5_depth=2 raid5_width=2 "
         "stripe_unit=65536 "},
        {"3", "1",
         "alignment_size=2097152 layout_type=RAID5 number_comp=8 raid5_depth=2 raid5_width=1 "
         "stripe_unit=65536 "},
    };
    ParallelFile file(limit(1024), L"field", CREATE);
    for (const auto& [type, width, expected] : rows) {
        const std::map<std::string, std::string> hints{{"panfs_layout_type", type},
                                                       {"panfs_layout_stripe_unit", "65536"},
                                                       {"panfs_layout_total_num_comps", "8"},
                                                       {"panfs_layout_parity_stripe_width", width},
                                                       {"panfs_layout_parity_stripe_depth", "2"}};
        mpi.setAction("Info_get", [&](const ScriptedCall& call) {
            const auto found = hints.find(call.texts.at("key"));
            *static_cast<int*>(call.addresses.at("flag")) = found != hints.end();
            if (found != hints.end())
                std::strcpy(static_cast<char*>(call.addresses.at("value")), found->second.c_str());
            return OXM_MPI_SUCCESS;
        });
        std::map<std::string, std::string> info{{"a", "stays"}};
        file.getInfo(info);
        std::string told;
        for (const auto& [key, value] : info)
            told.append(key).append("=").append(value).append(" ");
        EXPECT_EQ(told, "a=stays " + expected);
        EXPECT_EQ(mpi.liveHandles()["info"], 0);
    }
}

} // namespace
