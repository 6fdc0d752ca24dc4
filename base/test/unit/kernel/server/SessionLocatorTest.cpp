#include "ServerTestSupport.h"

#include "platform/FileSystem.h"
#include "platform/Io.h"
#include "platform/Process.h"
#include "platform/StringHelper.h"
#include "platform/System.h"

#include <fcntl.h>
#include <functional>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

std::string narrow(const std::wstring& path) {
    return StringHelper::toString(path);
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
        made.boot = Platform::system().getBootId();
        made.pidNamespace = Platform::process().getPidNamespace();
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

TEST_F(SessionLocatorTest, newestFirstAndOnlyWhatIsSeenDeadIsRemoved) {
    leave(mine("old", 100.0), "1.session");
    leave(mine("new", 200.0), "2.session");
    const struct {
        const char* name;
        std::function<void(SessionRecord&)> change;
        bool stays;
    } rows[] = {
        {"dead", [](SessionRecord& dead) { dead.startStamp += 1; }, false}, // another process has the pid now
        {"gone", [](SessionRecord& gone) { gone.pid = 999999999; }, false},
        {"elsewhere", [](SessionRecord& other) { other.host = other.boot = "other"; }, true},
        {"boot", [](SessionRecord& other) { other.boot = "other"; }, true},
        {"container", [](SessionRecord& other) { other.pidNamespace += 1; }, true},
        {"no-proc", [](SessionRecord& other) { other.startStamp = other.pidNamespace = 0; }, true},
    };
    double time = 900.0;
    std::vector<std::wstring> paths;
    for (const auto& row : rows) {
        SessionRecord other = mine(row.name, time--);
        row.change(other);
        paths.push_back(leave(other, std::string(row.name) + ".session"));
    }
    for (const char* name : {"x.session.AbC123", "y.session.AbC123"}) // of which the first is long ago
        ASSERT_TRUE(
            Platform::filesystem().writePrivateFile(sessions + L"/" + StringHelper::toWString(name), "{"));
    const timespec longAgo[2] = {{1, 0}, {1, 0}};
    ASSERT_EQ(utimensat(AT_FDCWD, narrow(sessions + L"/x.session.AbC123").c_str(), longAgo, 0), 0);
    ASSERT_TRUE(Platform::filesystem().writePrivateFile(sessions + L"/broken.session", "{\"name\":"));
    std::string names;
    std::vector<std::string> ignored;
    for (const SessionRecord& found : locator().findSessions(&ignored))
        names += found.name + " ";
    EXPECT_EQ(names, "new old boot container no-proc elsewhere ");
    ASSERT_EQ(ignored.size(), 1u);
    EXPECT_EQ(ignored.front(), narrow(sessions) + "/broken.session: it holds no session record");
    for (std::size_t i = 0; i < paths.size(); ++i)
        EXPECT_EQ(Platform::filesystem().exists(paths[i]), rows[i].stays) << rows[i].name;
    EXPECT_FALSE(Platform::filesystem().exists(sessions + L"/x.session.AbC123"));
    EXPECT_TRUE(Platform::filesystem().exists(sessions + L"/y.session.AbC123"));
}

TEST_F(SessionLocatorTest, trustsNoForeignFiles) {
    const std::wstring path = leave(mine("open", 1.0), "open.session");
    const std::string link = narrow(sessions) + "/link.session";
    ASSERT_EQ(symlink(narrow(path).c_str(), link.c_str()), 0);
    EXPECT_EQ(locator().findSessions().size(), 1u); // not a second time through the link
    const struct {
        std::wstring changed; ///< gets `mode` for the time of the row
        mode_t mode;
        std::wstring read;
        const char* reason;
    } rows[] = {
        {path, 0644, path, "isn't for this user alone"},
        {directory.path(), 0702, path, "others may write to the folder"},
        {directory.path() + L"/a", 0722, path, "others may write to the folder"},
        {directory.path(), 0700, sessions + L"/none", "No such file"},
        {directory.path(), 0700, sessions, "isn't a regular file"},
        {directory.path(), 0700, StringHelper::toWString(link), "is a symbolic link"},
        {directory.path(), 01777, path, nullptr},
    };
    for (const auto& row : rows) {
        struct stat before {};
        ASSERT_EQ(stat(narrow(row.changed).c_str(), &before), 0);
        ASSERT_EQ(chmod(narrow(row.changed).c_str(), row.mode), 0);
        try {
            EXPECT_EQ(SessionLocator::readRecord(row.read).name, "open");
            EXPECT_EQ(row.reason, nullptr);
        } catch (const InputError& error) {
            EXPECT_NE(std::string(error.what()).find(row.reason ? row.reason : "?"), std::string::npos)
                << error.what();
        }
        const bool found = !locator().findSessions().empty();
        EXPECT_EQ(found, row.read != path || !row.reason) << narrow(row.changed);
        chmod(narrow(row.changed).c_str(), before.st_mode & 07777);
    }
    ASSERT_EQ(chmod(narrow(directory.path()).c_str(), 0777), 0);
    EXPECT_THROW(locator().publish(record("x")), SystemError);
    ASSERT_EQ(chmod(narrow(directory.path()).c_str(), 0700), 0);

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
