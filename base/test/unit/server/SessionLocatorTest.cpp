#include "ServerTestSupport.h"

#include "platform/FileSystem.h"
#include "platform/Io.h"
#include "platform/Process.h"

#include <csignal>
#include <fstream>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

std::string narrow(const std::wstring& path) {
    return {path.begin(), path.end()};
}

class SessionLocatorTest : public ::testing::Test {
protected:
    SessionLocatorTest() {
        SessionLocator::reset();
        locator().setDirectory(sessions);
        locator().setNumberProcesses(4);
    }
    ~SessionLocatorTest() override { SessionLocator::reset(); }

    static SessionLocator& locator() { return SessionLocator::getSingleton(); }
    static SessionRecord record(const std::string& name) {
        SessionRecord made;
        made.name = name;
        made.address = "127.0.0.1";
        made.port = 4711;
        made.product = "a product";
        made.key = SessionKey::generate().toHex();
        return made;
    }
    /// Leaves a record of another process, as that would write it.
    std::wstring leave(SessionRecord other, const std::string& fileName) {
        EXPECT_TRUE(Platform::filesystem().makePrivateDirectory(sessions));
        const std::wstring path = sessions + L"/" + std::wstring(fileName.begin(), fileName.end());
        EXPECT_TRUE(Platform::filesystem().writePrivateFile(path, other.toText()));
        return path;
    }
    SessionRecord mine(const std::string& name, double startTime) const {
        SessionRecord made = record(name);
        made.host = Platform::io().getHostName();
        made.pid = Platform::process().getPid();
        made.startStamp = Platform::process().getStartStamp(made.pid);
        made.startTime = startTime;
        return made;
    }

    RecordDirectory directory;
    const std::wstring sessions = directory.path() + L"/a/sessions";
};

TEST_F(SessionLocatorTest, publishesForItsUserAlone) {
    const SessionRecord written = record("wing");
    EXPECT_FALSE(locator().isRunning());
    locator().publish(written);
    EXPECT_TRUE(locator().isRunning());
    struct stat status {};
    ASSERT_EQ(stat(narrow(locator().getRecordPath()).c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 0777u, 0600u);
    ASSERT_EQ(stat(narrow(sessions).c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 0777u, 0700u);

    const std::vector<SessionRecord> found = locator().findSessions();
    ASSERT_EQ(found.size(), 1u);
    EXPECT_EQ(found[0].name, "wing");
    EXPECT_EQ(found[0].key, written.key);
    EXPECT_EQ(found[0].ranks, 4u);
    EXPECT_TRUE(found[0].isAliveHere());
    Properties info;
    locator().getInfo(info);
    EXPECT_EQ(info.getUnsignedInt("port"), 4711u);
    EXPECT_EQ(info.toString().find(written.key), std::string::npos);

    locator().withdraw();
    EXPECT_TRUE(locator().findSessions().empty());
    EXPECT_TRUE(locator().stopRequested());
}

TEST_F(SessionLocatorTest, newestFirstAndTheDeadAreRemoved) {
    SessionRecord dead = mine("dead", 50.0);
    dead.startStamp += 1; // another process with the pid of today
    SessionRecord elsewhere = mine("elsewhere", 900.0);
    elsewhere.host = "some-other-host";
    const std::wstring deadPath = leave(dead, "dead.session");
    leave(mine("old", 100.0), "1.session");
    leave(mine("new", 200.0), "2.session");
    leave(elsewhere, "3.session");
    ASSERT_TRUE(Platform::filesystem().writePrivateFile(sessions + L"/broken.session", "{\"name\":"));
    std::string names;
    for (const SessionRecord& found : locator().findSessions())
        names += found.name + " ";
    EXPECT_EQ(names, "new old elsewhere ");
    EXPECT_FALSE(Platform::filesystem().exists(deadPath));
}

TEST_F(SessionLocatorTest, trustsNoForeignFiles) {
    const std::wstring path = leave(mine("open", 1.0), "open.session");
    ASSERT_EQ(symlink(narrow(path).c_str(), narrow(sessions + L"/link.session").c_str()), 0);
    EXPECT_EQ(locator().findSessions().size(), 1u); // not a second time through the link
    ASSERT_EQ(chmod(narrow(path).c_str(), 0644), 0);
    EXPECT_TRUE(locator().findSessions().empty());
    EXPECT_THROW(SessionLocator::readRecord(path), InputError);
    EXPECT_THROW(SessionLocator::readRecord(sessions + L"/none"), InputError);
    EXPECT_THROW(SessionLocator::readRecord(sessions), InputError);

    SessionLocator::reset();
    ASSERT_EQ(symlink(narrow(directory.path()).c_str(), narrow(directory.path() + L"/link").c_str()), 0);
    locator().setDirectory(directory.path() + L"/link");
    EXPECT_THROW(locator().publish(record("x")), SystemError);
}

TEST_F(SessionLocatorTest, leavesNoRecordOnAnyWayOut) {
    for (const bool orderly : {true, false}) {
        const pid_t child = fork();
        if (child == 0) {
            locator().publish(record("child"));
            if (orderly)
                std::exit(0); // as an abort of a serial process does
            SessionLocator::cleanup();
            std::_Exit(0); // as an abort of a job does
        }
        int status = -1;
        ASSERT_EQ(waitpid(child, &status, 0), child);
        std::vector<std::wstring> directories;
        std::vector<std::wstring> files;
        ASSERT_TRUE(Platform::filesystem().listDirectory(sessions, directories, files));
        EXPECT_TRUE(files.empty()) << orderly;
    }
    // and a child that dies takes nothing of its parent's along
    locator().publish(record("parent"));
    const pid_t child = fork();
    if (child == 0)
        std::exit(0);
    int status = -1;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    EXPECT_EQ(locator().findSessions().size(), 1u);
}

} // namespace
