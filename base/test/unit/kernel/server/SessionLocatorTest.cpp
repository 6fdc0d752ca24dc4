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

void setMode(const std::wstring& path, mode_t mode) {
    ASSERT_EQ(chmod(narrow(path).c_str(), mode), 0);
}

class SessionLocatorTest : public ::testing::Test {
protected:
    SessionLocatorTest() {
        SessionLocator::reset();
        locator().setDirectory(sessions);
    }
    ~SessionLocatorTest() override { SessionLocator::reset(); }

    static SessionLocator& locator() { return SessionLocator::getSingleton(); }
    static SessionRecord record(const std::string& name) {
        SessionRecord made;
        made.name = name;
        made.port = 4711;
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

    TemporaryDirectory directory;
    const std::wstring sessions = directory.getPath() + L"/a/sessions";
};

TEST_F(SessionLocatorTest, PublishesForItsUserAlone) {
    const SessionRecord written = record("wing");
    locator().publish(written);
    const std::vector<SessionRecord> found = locator().findSessions();
    ASSERT_EQ(found.size(), 1u);
    EXPECT_EQ(found[0].name, "wing");
    EXPECT_EQ(found[0].key, written.key);
    EXPECT_TRUE(found[0].isAliveHere());
    Properties info;
    locator().getInfo(info);
    EXPECT_EQ(info.getUnsignedInt("port"), 4711u);
    EXPECT_EQ(info.toString().find(written.key), std::string::npos);

    locator().withdraw();
    EXPECT_TRUE(locator().findSessions().empty());
    EXPECT_TRUE(locator().stopRequested());
}

TEST_F(SessionLocatorTest, ListsTheNewestFirstAndRemovesOnlyTheDead) {
    leave(mine("old", 100.0), "1.session");
    leave(mine("new", 200.0), "2.session");
    const struct {
        const char* name;
        std::function<void(SessionRecord&)> change;
        bool stays;
    } rows[] = {
        {"dead", [](SessionRecord& dead) { dead.startStamp += 1; }, false}, // another process has the pid now
        {"gone", [](SessionRecord& gone) { gone.pid = 999999999; }, false},
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
    ASSERT_TRUE(Platform::filesystem().writePrivateFile(sessions + L"/broken.session", "{"));
    std::string names;
    std::vector<std::string> ignored;
    for (const SessionRecord& found : locator().findSessions(&ignored))
        names += found.name + " ";
    EXPECT_EQ(names, "new old boot container no-proc ");
    EXPECT_EQ(StringHelper::join(ignored, ";"),
              narrow(sessions) + "/broken.session: it holds no session record");
    for (std::size_t i = 0; i < paths.size(); ++i)
        EXPECT_EQ(Platform::filesystem().exists(paths[i]), rows[i].stays) << rows[i].name;
    EXPECT_FALSE(Platform::filesystem().exists(sessions + L"/x.session.AbC123"));
    EXPECT_TRUE(Platform::filesystem().exists(sessions + L"/y.session.AbC123"));
}

TEST_F(SessionLocatorTest, TrustsNoForeignFiles) {
    const std::wstring path = leave(mine("open", 1.0), "open.session");
    const std::string link = narrow(sessions) + "/link.session";
    ASSERT_EQ(symlink(narrow(path).c_str(), link.c_str()), 0);
    EXPECT_EQ(locator().findSessions().size(), 1u); // not a second time through the link
    const struct {
        std::wstring changed; ///< gets `mode` for the time of the row
        mode_t mode;
        std::wstring read;
        const char* reason; ///< of the refusal, or the name that is read
    } rows[] = {
        {path, 0644, path, "isn't for this user alone"},
        {directory.getPath(), 0702, path, "others may write to the folder"},
        {directory.getPath() + L"/a", 0722, path, "others may write to the folder"},
        {directory.getPath(), 0700, sessions + L"/none", "No such file"},
        {directory.getPath(), 0700, sessions, "isn't a regular file"},
        {directory.getPath(), 0700, StringHelper::toWString(link), "is a symbolic link"},
        {directory.getPath(), 01777, path, "open"},
    };
    for (const auto& row : rows) {
        setMode(row.changed, row.mode);
        std::string told;
        try {
            told = SessionLocator::readRecord(row.read).name;
        } catch (const InputError& error) {
            told = error.what();
        }
        EXPECT_NE(told.find(row.reason), std::string::npos) << told;
        EXPECT_EQ(locator().findSessions().empty(), row.read == path && told != "open");
        setMode(row.changed, row.changed == path ? 0600 : 0700);
    }
    setMode(directory.getPath(), 0777);
    EXPECT_THROW(locator().publish(record("x")), SystemError);
    setMode(directory.getPath(), 0700);

    SessionLocator::reset();
    ASSERT_EQ(symlink(narrow(directory.getPath()).c_str(), narrow(directory.getPath() + L"/link").c_str()),
              0);
    locator().setDirectory(directory.getPath() + L"/link");
    EXPECT_THROW(locator().publish(record("x")), SystemError);
}

TEST_F(SessionLocatorTest, LeavesNoRecordOnAnyWayOut) {
    const auto countAfter = [this](const std::function<void()>& work) {
        const pid_t child = fork();
        if (child == 0) {
            work();
            std::exit(0); // as an abort of a serial process does
        }
        EXPECT_EQ(waitpid(child, nullptr, 0), child);
        std::vector<std::wstring> directories, files;
        EXPECT_TRUE(Platform::filesystem().listDirectory(sessions, directories, files));
        return files.size();
    };
    const auto publish = [] { locator().publish(record("child")); };
    const auto abort = [&] {
        publish();
        SessionLocator::cleanup();
        std::_Exit(0); // as an abort of a job does
    };
    EXPECT_EQ(countAfter(publish), 0u);
    EXPECT_EQ(countAfter(abort), 0u);
    publish();
    EXPECT_EQ(countAfter([] {}), 1u); // takes nothing of its parent's along
}

} // namespace
