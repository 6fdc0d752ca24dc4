#include "platform/FileSystem.h"

#include "platform/PrivateFile.h"
#include "platform/StringHelper.h"
#include "support/TemporaryDirectory.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <fcntl.h>
#include <filesystem>
#include <sys/stat.h>
#include <unistd.h>

namespace {

using Names = std::vector<std::wstring>;
namespace fs = std::filesystem;

class FileSystemTest : public testing::Test {
protected:
    std::string narrow(const std::wstring& name) const { return StringHelper::toString(directory / name); }
    void write(const std::wstring& name, const std::string& content) const {
        std::ofstream(narrow(name)) << content;
    }

    TemporaryDirectory directory;
    Platform::FileSystem& files = Platform::filesystem();
};

} // namespace

TEST_F(FileSystemTest, ListsWhatIsThere) {
    write(L"b.sim", "12345");
    write(L"\x00E4\x20AC", "");
    ASSERT_TRUE(files.makeDirectory(directory / L"sub"));
    fs::create_symlink("sub", narrow(L"link"));
    fs::create_symlink("nowhere", narrow(L"dangling"));
    std::ofstream(narrow(L"bad") + "\xFF"); // a name that isn't UTF-8: listed so that it can be addressed

    Names dirs{L"old"};
    Names names{L"old"};
    ASSERT_TRUE(files.listDirectory(directory.getPath(), dirs, names));
    EXPECT_EQ(dirs, (Names{L"link", L"sub"}));
    EXPECT_EQ(names, (Names{L"b.sim", L"bad\\xFF", L"dangling", L"\x00E4\x20AC"}));
    EXPECT_TRUE(files.deleteFile(directory / L"bad\\xFF"));
    for (const std::wstring& path : {directory / L"missing", directory / L"b.sim", std::wstring()}) {
        errno = 0;
        EXPECT_FALSE(files.listDirectory(path, dirs, names));
        EXPECT_TRUE(dirs.empty() && names.empty() && errno != 0);
    }
}

TEST_F(FileSystemTest, AsksAndChanges) {
    write(L"file", "");
    const std::wstring cut = directory / std::wstring(L"file\0x", 6); // a zero in a path leads nowhere
    EXPECT_FALSE(files.exists(cut) || files.deleteFile(cut) || files.createFile(cut));
    EXPECT_EQ(files.getSize(directory.getPath()), -1);
    EXPECT_EQ(files.isReadOnly(L"/proc/self/stat"), ::geteuid() != 0); // nothing is forbidden to root
    EXPECT_EQ(files.rename(directory / L"file", directory / L"moved"), 0);
    EXPECT_EQ(files.rename(directory / L"file", directory / L"moved"), ENOENT);
    EXPECT_TRUE(files.deleteFile(directory / L"moved"));
    EXPECT_FALSE(files.deleteFile(directory.getPath()));
    for (int i = 0; i < 2; ++i)
        EXPECT_TRUE(files.makeDirectories(directory / L"a/b"));
    EXPECT_TRUE(files.deleteTree(directory / L"a"));
    EXPECT_FALSE(files.deleteTree(directory / L"a"));
}

TEST_F(FileSystemTest, MakesPathsAbsoluteAndShort) {
    const std::wstring before = files.getCurrentDirectory();
    EXPECT_FALSE(files.setCurrentDirectory(directory / L"missing"));
    EXPECT_EQ(files.getAbsolutePath(L"x/../y/./z/"), before + L"/y/z");
    ASSERT_TRUE(files.setCurrentDirectory(L"/tmp"));
    EXPECT_EQ(files.getAbsolutePath(L"z"), L"/tmp/z");
    ASSERT_TRUE(files.setCurrentDirectory(before));
    EXPECT_EQ(files.getAbsolutePath(L"//a//../b"), L"/b");
    EXPECT_EQ(files.getAbsolutePath(L""), L"");
    for (const auto& [path, expected] :
         {std::pair{L"", L""}, {L"name", L"name"}, {L"-a//b/", L"-a/b/"}, {L"//", L"/"}})
        EXPECT_EQ(files.getFilePath(path), expected);
    EXPECT_EQ(files.join(L"/a/", L"b"), L"/a/b");
    EXPECT_EQ(files.join(L"", L"b"), L"b");
}

TEST_F(FileSystemTest, PrivateFilesAreForTheirUserAlone) {
    const std::wstring folder = directory / L"deep/private";
    const mode_t before = ::umask(0);
    ASSERT_TRUE(files.makePrivateDirectory(folder));
    EXPECT_EQ(Platform::PrivateFile::findWeakness(folder), "");
    ::chmod(narrow(L"deep/private").c_str(), 0755);
    ASSERT_TRUE(files.makePrivateDirectory(folder));
    EXPECT_EQ(fs::status(narrow(L"deep/private")).permissions(), fs::perms::owner_all);
    fs::create_symlink("deep/private", narrow(L"link"));
    EXPECT_FALSE(files.makePrivateDirectory(directory / L"link"));
    write(L"plain", "");
    EXPECT_FALSE(files.makePrivateDirectory(directory / L"plain"));

    const std::wstring record = files.join(folder, L"record");
    ASSERT_TRUE(files.writePrivateFile(record, "one"));
    ASSERT_TRUE(files.writePrivateFile(record, "two"));
    std::string reason;
    EXPECT_EQ(Platform::PrivateFile::read(record, 3, reason), "two");
    EXPECT_FALSE(Platform::PrivateFile::read(record, 2, reason));
    EXPECT_EQ(reason, "it is larger than 2 bytes");
    std::string content = "old";
    EXPECT_TRUE(files.readFile(record, content, 3));
    EXPECT_EQ(content, "two");
    EXPECT_FALSE(files.readFile(record, content, 2));
    EXPECT_FALSE(files.readFile(folder, content, 99));
    EXPECT_FALSE(files.writePrivateFile(directory / L"missing/record", ""));
    ::umask(before);
    Names dirs, names;
    ASSERT_TRUE(files.listDirectory(folder, dirs, names));
    EXPECT_EQ(names, Names{L"record"}); // no half-written file is left beside it
}

TEST_F(FileSystemTest, APipeIsRefusedWithoutWaiting) {
    const std::wstring fifo = directory / L"fifo";
    ASSERT_EQ(::mkfifo(narrow(L"fifo").c_str(), 0600), 0);
    std::string content;
    EXPECT_FALSE(files.readFile(fifo, content, 9));
    EXPECT_FALSE(files.createFile(fifo));
    EXPECT_FALSE(files.canBeRead(fifo));
    EXPECT_FALSE(files.canBeWritten(fifo));
    const int reader = ::open(narrow(L"fifo").c_str(), O_RDONLY | O_NONBLOCK);
    EXPECT_TRUE(files.canBeWritten(fifo));
    EXPECT_FALSE(files.createFile(fifo));
    ::close(reader);
    EXPECT_FALSE(files.createFile(L"/dev/null"));
    EXPECT_TRUE(files.canBeRead(L"/dev/null") && files.canBeWritten(L"/dev/null"));
}
