#include "kernel/profile/ProfileFile.h"

#include "kernel/Properties.h"
#include "kernel/profile/ProfileJob.h"
#include "kernel/profile/ProfileReader.h"
#include "unit/kernel/profile/ProfileTestSupport.h"

#include <atomic>
#include <csignal>
#include <random>
#include <sys/resource.h>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>

using Life = ProfileSnapshot::Life;
using ProfileLayout::Page;

namespace {

class Profile : public ProfileFolder {
protected:
    void SetUp() override {
        std::string reason;
        _file = ProfileFile::create(&reason);
        ASSERT_NE(_file, nullptr) << reason;
        fill(_file->getPage());
    }
    /// Empty with _reason when it is refused.
    ProfileSnapshot read() {
        return ProfileReader::readFile(_file->getPath(), _reason).value_or(ProfileSnapshot{});
    }

    std::unique_ptr<ProfileFile> _file;
    std::string _reason;
};

/// Copies the profile as that of a dead process.
class DeadProfiles : public Profile {
protected:
    void add(unsigned rank, int masterPid, double began) {
        Page& page = _file->getPage();
        page.header.startStamp = 1;
        page.header.rank = rank;
        page.header.masterPid = masterPid;
        page.bills = 0;
        page.header.beganAt = static_cast<std::int64_t>(began * 1e9);
        const std::string name = _file->getPath() + std::to_string(_count++);
        std::filesystem::copy_file(_file->getPath(), name);
    }
    /// Only the copies.
    void finish() { _file.reset(); }

    unsigned _count = 0;
};

} // namespace

TEST_F(Profile, IsForItsUserAloneAndGoesWithItsProcess) {
    struct stat status {};
    ASSERT_EQ(::stat(_file->getPath().c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 07777, 0600u);
    EXPECT_EQ(ProfileFile::find(), std::vector{_file->getPath()});
    EXPECT_EQ(ProfileFile::create(&_reason), nullptr); // it is there already
    EXPECT_NE(_reason.find("File exists"), std::string::npos) << _reason;
    _file.reset();
    EXPECT_TRUE(ProfileFile::find().empty());
    _file = ProfileFile::create();
    _file->keep();
    _file.reset();
    EXPECT_EQ(ProfileFile::find().size(), 1u);
    EXPECT_TRUE(ProfileFile::remove(ProfileFile::find().front()));
    EXPECT_FALSE(ProfileFile::remove(_folder + "/other"));
}

TEST_F(Profile, NeedsMemoryThatItCanHave) {
    _file.reset();
    std::signal(SIGXFSZ, SIG_IGN);
    rlimit before{};
    ::getrlimit(RLIMIT_FSIZE, &before);
    const rlimit small{sizeof(Page) - 1, before.rlim_max};
    ::setrlimit(RLIMIT_FSIZE, &small);
    ProfileFile::setFolders({"/proc", _folder, _folder + "/none"});
    EXPECT_EQ(ProfileFile::create(&_reason), nullptr);
    ::setrlimit(RLIMIT_FSIZE, &before);
    EXPECT_NE(_reason.find("the files of /proc don't lie in memory; " + _folder), std::string::npos)
        << _reason;
    EXPECT_NE(_reason.find("File too large"), std::string::npos) << _reason;
    EXPECT_TRUE(std::filesystem::is_empty(_folder));
}

TEST_F(Profile, TellsWhatItsRankDoes) {
    _file->getPage().header.startStamp = 1; // a dead one, so that no time goes on
    const ProfileSnapshot profile = read();
    EXPECT_EQ(_reason, "");
    EXPECT_EQ(
        profile.toProperties().toString(),
        R"({"rank":1,"ranks":3,"state":"died","process":)" + std::to_string(::getpid()) +
            R"(,"masterProcess":77,"host":"n1","masterHost":"n0","job":"","product":"Product 1",)"
            R"("began":1700000001.0,"lastActivity":1700000004.0,"messages":2,"inside":true,)"
            R"("bytes":1000,"waiting":0.5,"depth":1,"commands":[{"name":"Solve","began":0.0,)"
            R"("seconds":1.5,"operations":1,"bytes":1000,"waiting":0.5}],"operations":[{"number":2,)"
            R"("name":"allReduce","communicator":"global, 3 ranks","bytes":800,"partner":2,)"
            R"("open":true,"began":1700000003.0,"seconds":0.0},{"number":1,"name":"",)"
            R"("communicator":"","bytes":0,"partner":0,"open":false,"began":1700000002.0,)"
            R"("seconds":0.5}],"bills":[{"number":1,"command":"GetTimes","began":1700000002.0,"wall":2.0,)"
            R"("processor":0.0,"waiting":0.0,"messages":0,"bytes":0,"peakMemory":0,)"
            R"("addedMemory":-4096,"failed":false}],"events":[{"name":"Solver::step?","count":0,)"
            R"("seconds":0.25,"open":true,"openSeconds":0.1}],"halfWritten":0,"file":")" +
            _file->getPath() + "\"}");
}

TEST_F(Profile, LeavesOutWhatIsBeingWritten) {
    _file->getPage().commands[0].sequence = 1;
    _file->getPage().bill[0].sequence = 3;
    const ProfileSnapshot profile = read();
    EXPECT_EQ(profile.halfWritten, 2u);
    EXPECT_TRUE(profile.commands.empty() && profile.bills.empty());
    EXPECT_EQ(profile.operations.size(), 2u);
    EXPECT_EQ(profile.events.size(), 1u);
}

TEST_F(Profile, KnowsWhetherItsProcessLives) {
    ProfileLayout::Header& header = _file->getPage().header;
    EXPECT_EQ(read().life, Life::LIVES);
    ++header.pidNamespace;
    EXPECT_EQ(read().life, Life::UNSEEN);
    header.bootId[0] = 'x';
    EXPECT_EQ(read().life, Life::DIED);
}

TEST_F(Profile, IsRefusedWithAReason) {
    struct Row {
        const char* reason;
        void (*spoil)(Page&);
    };
    for (const Row& row : {
             Row{"it isn't complete: its process is starting, or died as it started",
                 [](Page& page) { page.header.magic = 0; }},
             Row{"it holds no profile", [](Page& page) { page.header.magic = 1; }},
             Row{"it was written in another order of bytes",
                 [](Page& page) { page.header.byteOrder = 0x04030201; }},
             Row{"its form is number 7, and this program reads number 1",
                 [](Page& page) { page.header.version = 7; }},
             Row{"it tells of rank 3 of 3", [](Page& page) { page.header.rank = 3; }},
             Row{"it names no process", [](Page& page) { page.header.pid = 0; }},
             Row{"its clock can't be understood", [](Page& page) { page.header.ticksPerSecond = 0.0; }},
         }) {
        const Page& page = _file->getPage();
        std::string good(sizeof page, '\0');
        std::memcpy(good.data(), static_cast<const void*>(&page), good.size());
        row.spoil(_file->getPage());
        EXPECT_FALSE(ProfileReader::readFile(_file->getPath(), _reason));
        EXPECT_EQ(_reason, row.reason);
        std::memcpy(static_cast<void*>(&_file->getPage()), good.data(), good.size());
    }
    ASSERT_EQ(::chmod(_file->getPath().c_str(), 0640), 0);
    EXPECT_FALSE(ProfileReader::readFile(_file->getPath(), _reason));
    EXPECT_EQ(_reason, "it isn't for this user alone");
    ASSERT_EQ(::chmod(_file->getPath().c_str(), 0600), 0);
    std::filesystem::create_symlink(_file->getPath(), _folder + "/link");
    EXPECT_FALSE(ProfileReader::readFile(_folder + "/link", _reason));
    EXPECT_EQ(_reason, "it is a symbolic link");
    std::filesystem::copy_file(_file->getPath(), _folder + "/short");
    for (const auto& [size, reason] :
         {std::pair(1000u, "it has 1000 bytes in place of " + std::to_string(sizeof(Page))),
          std::pair(10u, std::string("it is too short for a profile"))}) {
        std::filesystem::resize_file(_folder + "/short", size);
        EXPECT_FALSE(ProfileReader::readFile(_folder + "/short", _reason));
        EXPECT_EQ(_reason, reason);
    }
}

TEST_F(Profile, MayHoldAnything) {
    std::mt19937 random(1); // NOLINT: the same in each run
    auto* const bytes = reinterpret_cast<unsigned char*>(&_file->getPage());
    unsigned read = 0;
    for (int round = 0; round < 2000; ++round) {
        std::memset(static_cast<void*>(bytes), 0, sizeof(Page));
        fill(*new (bytes) Page{});
        ProfileLayout::Header& header = _file->getPage().header;
        header.version = ProfileLayout::VERSION;
        header.byteOrder = ProfileLayout::BYTE_ORDER_MARK;
        header.size = sizeof(Page);
        header.pid = ::getpid();
        for (auto flips = random() % 4000; flips > 0; --flips)
            bytes[sizeof header + random() % (sizeof(Page) - sizeof header)] =
                static_cast<unsigned char>(random());
        bytes[random() % sizeof header] ^= static_cast<unsigned char>(round % 2);
        if (const auto profile = ProfileReader::readFile(_file->getPath(), _reason); profile) {
            ++read;
            EXPECT_FALSE(profile->toProperties().toString().empty());
        }
    }
    EXPECT_GT(read, 1000u);
}

TEST_F(Profile, IsWholeWhileItChanges) {
    std::atomic<bool> stop{false};
    std::thread writer([&] {
        ProfileLayout::Bill& bill = _file->getPage().bill[0];
        for (std::uint64_t i = 0; !stop; ++i) {
            const std::uint64_t sequence = bill.sequence.fetch_add(1);
            std::atomic_ref(bill.operations).store(i);
            std::this_thread::yield();
            std::atomic_ref(bill.bytes).store(i);
            bill.sequence.store(sequence + 2, std::memory_order_release);
        }
    });
    for (int round = 0; round < 2000; ++round)
        for (const ProfileSnapshot::Bill& bill : read().bills)
            EXPECT_EQ(bill.operations, bill.bytes);
    stop = true;
    writer.join();
}

TEST_F(DeadProfiles, AreJobs) {
    for (const unsigned rank : {2u, 0u, 1u})
        add(rank, 5, 1000.0);
    add(0, 6, 2000.0);
    add(0, 5, 1100.0); // the number of the process was used again
    finish();
    const std::vector<ProfileJob> jobs = ProfileJob::find();
    ASSERT_EQ(jobs.size(), 3u);
    EXPECT_EQ(jobs[0].getFirst().masterPid, 6);
    EXPECT_EQ(jobs[2].getMembers().size() + jobs[1].getMembers().size(), 4u);
    EXPECT_EQ(jobs[0].getLastActivity(), 2002.0);
    EXPECT_EQ(jobs[0].remove(), 1u);
    EXPECT_EQ(ProfileJob::find().size(), 2u);
}

TEST_F(DeadProfiles, AreRemovedWhenTheyAreOldOrMany) {
    const double now = static_cast<double>(std::time(nullptr));
    for (int job = 1; job <= 5; ++job)
        for (const unsigned rank : {0u, 1u})
            add(rank, job, now - 1000.0 * job);
    std::filesystem::copy_file("/proc/self/stat", _file->getPath() + "-garbage");
    finish();
    const auto left = [](double maxAge, std::size_t maxJobs, std::size_t maxBytes) {
        ProfileJob::removeOld(maxAge, maxJobs, maxBytes);
        return ProfileFile::find().size();
    };
    EXPECT_EQ(left(1e6, 10, std::size_t(1) << 30), 11u);
    EXPECT_EQ(left(4500.0, 10, std::size_t(1) << 30), 9u);
    EXPECT_EQ(left(1e6, 3, std::size_t(1) << 30), 7u);
    EXPECT_EQ(left(1e6, 10, 4 * sizeof(Page)), 5u);
    EXPECT_EQ(left(-1.0, 10, std::size_t(1) << 30), 0u);
}
