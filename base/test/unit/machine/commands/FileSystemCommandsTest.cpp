// The commands of the client's file browser, as each role runs them.

#include "kernel/Command.h"
#include "kernel/Controller.h"
#include "kernel/Error.h"
#include "platform/FileSystem.h"
#include "platform/StringHelper.h"

#include "unit/machine/MachineTestAccess.h"

#include <gtest/gtest.h>

#include <fstream>

namespace {

class FileSystemCommands : public testing::Test {
protected:
    void SetUp() override {
        MachineTestAccess::startAfresh();
        _origin = Platform::filesystem().getCurrentDirectory();
        _root = Platform::filesystem().makeTemporaryDirectory(
            Platform::filesystem().getDefaultTemporaryDirectory(), L"commands");
        ASSERT_FALSE(_root.empty());
        ASSERT_TRUE(Platform::filesystem().makeDirectory(path(L"folder")));
        std::ofstream(StringHelper::toString(path(L"file"))) << "12345";
        std::ofstream(StringHelper::toString(path(L"\u00fcml\u00e4ut"))) << "";
    }
    void TearDown() override {
        MachineTestAccess::startAfresh();
        EXPECT_TRUE(Platform::filesystem().setCurrentDirectory(_origin));
        EXPECT_TRUE(Platform::filesystem().deleteTree(_root));
    }

    std::wstring path(const std::wstring& name) const { return Platform::filesystem().join(_root, name); }

    /// The response to a command whose paths lie below the root.
    Properties run(const std::string& name, const std::wstring& file = {},
                   const std::wstring& newFile = {}) const {
        Properties command;
        command.set(Command::COMMAND_TAG, name);
        if (!file.empty())
            command.set("path", path(file));
        if (!newFile.empty())
            command.set("newPath", path(newFile));
        Properties response;
        static_cast<void>(Controller::getSingleton().executeCommand(command, response));
        return response;
    }

    /// The command has failed without an error; `reason` begins below the root.
    void expectFailure(const Properties& response, const std::wstring& reason) const {
        EXPECT_FALSE(Error::isErrorIn(response));
        EXPECT_FALSE(response.getBool("Success"));
        EXPECT_EQ(response.getOrvexString("Reason"), path(reason));
    }

    template <class V>
    static std::vector<V> listIn(const Properties& response, const char* key) {
        std::vector<V> list;
        response.get(key, list);
        return list;
    }

    std::wstring _origin;
    std::wstring _root;
};

using Names = std::vector<std::wstring>;

TEST_F(FileSystemCommands, ReadOnEveryRank) {
    for (const auto mode : {Machine::SERIAL_MODE, Machine::MASTER_MODE, Machine::WORKER_MODE}) {
        MachineTestAccess::playRole(mode, mode == Machine::SERIAL_MODE ? 1 : 2,
                                    mode == Machine::WORKER_MODE ? 1 : 0);
        EXPECT_EQ(run("GetDir").getOrvexString("cwd"), Platform::filesystem().getCurrentDirectory());
        const Properties listed = run("ListDir", L".");
        EXPECT_EQ(listIn<std::wstring>(listed, "dirs"), Names{L"folder"});
        EXPECT_EQ(listIn<std::wstring>(listed, "files"), (Names{L"file", L"\u00fcml\u00e4ut"}));
        EXPECT_EQ(run("GetSize", L"file").getLong("size"), 5);
        EXPECT_TRUE(run("GetFileExists", L"file").getBool("exists"));
        EXPECT_TRUE(run("GetFileExists", L"folder").getBool("exists"));
        EXPECT_FALSE(run("GetFileExists", L"nothing").getBool("exists"));
        EXPECT_FALSE(run("GetReadOnly", L"file").getBool("readonly"));
        EXPECT_FALSE(run("IsWindows").getBool("IsWindows"));
        EXPECT_EQ(listIn<std::string>(run("GetFileSystemRoots"), "Roots"), std::vector<std::string>{"/"});
        EXPECT_EQ(run("SetDir", L"folder").getOrvexString("cwd"), path(L"folder"));
        EXPECT_EQ(run("SetDir", L"nothing").getOrvexString("cwd"), path(L"folder"));
        expectFailure(run("SetDir", L"file"), L"file: Not a directory");
        for (const char* const name : {"SetDir", "ListDir", "GetSize", "GetFileExists", "GetReadOnly",
                                       "CreateFile", "CreateFolder", "DeleteFile"})
            EXPECT_EQ(Error::getMessage(run(name, std::wstring(L"file\0x", 6))),
                      "The argument path holds a zero character, as no path can.");
    }
    const Properties missing = run("ListDir", L"nothing");
    expectFailure(missing, L"nothing: No such file or directory");
    EXPECT_EQ(listIn<std::wstring>(missing, "dirs"), Names());
    EXPECT_EQ(listIn<std::wstring>(missing, "files"), Names());
}

TEST_F(FileSystemCommands, ChangeFilesOnTheSerialOrMasterProcess) {
    for (const auto mode : {Machine::SERIAL_MODE, Machine::MASTER_MODE}) {
        MachineTestAccess::playRole(mode, 2, 0);
        run("CreateFile", L"new");
        EXPECT_EQ(Platform::filesystem().getSize(path(L"new")), 0);
        EXPECT_EQ(run("RenameFile", L"new", L"renamed").getInt("ok"), 0);
        EXPECT_FALSE(Platform::filesystem().exists(path(L"new")));
        const Properties failed = run("RenameFile", L"nothing", L"renamed");
        EXPECT_EQ(failed.getInt("ok"), ENOENT);
        expectFailure(failed, L"nothing -> " + path(L"renamed") + L": No such file or directory");
        EXPECT_TRUE(run("DeleteFile", L"renamed").getBool("Success"));
        EXPECT_FALSE(Platform::filesystem().exists(path(L"renamed")));
        expectFailure(run("DeleteFile", L"renamed"), L"renamed: No such file or directory");
        EXPECT_TRUE(run("CreateFolder", L"made").getBool("Success"));
        EXPECT_TRUE(Platform::filesystem().isDirectory(path(L"made")));
        expectFailure(run("CreateFolder", L"file"), L"file: File exists");
    }
    run("CreateFile", L"file");
    EXPECT_EQ(Platform::filesystem().getSize(path(L"file")), 0) << "an existing file is emptied";

    const Properties refused = run("CreateFile", L"missing/new");
    EXPECT_EQ(Error::getMessage(refused),
              "Could not open file: " + StringHelper::toString(path(L"missing/new")));
    EXPECT_EQ(refused.getInt(Error::SEVERITY_TAG), 2);
    EXPECT_EQ(refused.getString(Error::ERROR_TAG), Error::DEFAULT_ERROR_TYPE);
}

TEST_F(FileSystemCommands, LeaveTheDiskAloneOnAWorker) {
    MachineTestAccess::playRole(Machine::WORKER_MODE, 2, 1);
    for (const wchar_t* const target : {L"file", L"missing/new"})
        EXPECT_FALSE(Error::isErrorIn(run("CreateFile", target)));
    run("CreateFolder", L"made");
    run("DeleteFile", L"file");
    EXPECT_EQ(run("RenameFile", L"file", L"renamed").getInt("ok"), -1);
    EXPECT_EQ(Platform::filesystem().getSize(path(L"file")), 5);
    EXPECT_FALSE(Platform::filesystem().exists(path(L"made")));
}

} // namespace
