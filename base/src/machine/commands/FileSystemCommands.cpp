#include "machine/commands/FileSystemCommands.h"

#include "machine/MachineGround.h"

#include "kernel/Command.h"
#include "kernel/Controller.h"
#include "kernel/Raise.h"
#include "platform/FileSystem.h"
#include "platform/StringHelper.h"

#include <cerrno>
#include <system_error>

namespace {

constexpr const char* PATH_KEY = "path";
constexpr const char* NEW_PATH_KEY = "newPath";
constexpr const char* CWD_KEY = "cwd";
constexpr const char* DIRS_KEY = "dirs";
constexpr const char* FILES_KEY = "files";
constexpr const char* SIZE_KEY = "size";
constexpr const char* EXISTS_KEY = "exists";
constexpr const char* READONLY_KEY = "readonly";
constexpr const char* OK_KEY = "ok";
constexpr const char* IS_WINDOWS_KEY = "IsWindows";
constexpr const char* ROOTS_KEY = "Roots";
constexpr const char* SUCCESS_KEY = "Success";
constexpr const char* REASON_KEY = "Reason";

CommandKey pathKey(const char* meaning) {
    return {PATH_KEY, "text", meaning};
}

CommandKey cwdKey() {
    return {CWD_KEY, "text", "the current directory of the server"};
}

CommandKey successKey() {
    return {SUCCESS_KEY, "bool", "whether that was done"};
}

CommandKey reasonKey() {
    return {REASON_KEY, "text", "the path and the system's reason, when it wasn't"};
}

/// The path under `key`. No system call can take one with a zero: it is an error for all ranks.
std::wstring pathIn(const Properties& args, const char* key = PATH_KEY) {
    std::wstring path = args.getOrvexString(key);
    if (path.find(L'\0') != std::wstring::npos)
        raise(InputError(std::string("The argument ") + key + " holds a zero character, as no path can."));
    return path;
}

/// Answers whether an operation on `paths` worked: `error` is 0 or the system's number.
void tell(Properties& response, int error, const std::wstring& paths) {
    response.set(SUCCESS_KEY, error == 0);
    if (error != 0)
        response.set(REASON_KEY,
                     paths + L": " + StringHelper::toWString(std::generic_category().message(error)));
}

/// The ranks of a job may share their files: one process changes them.
bool mayChangeFiles() {
    return MachineGround::isSerialOrMaster();
}

class GetDir : public QueryCommand {
public:
    GetDir() : QueryCommand({"Tells the current directory.", {}, {cwdKey()}}) {}
    std::string getName() const override { return "GetDir"; }
    void execute(const Properties&, Properties& response) override {
        response.set(CWD_KEY, Platform::filesystem().getCurrentDirectory());
    }
};

class SetDir : public QueryCommand {
public:
    SetDir()
        : QueryCommand({"Changes the current directory; when that fails it stays what it was.",
                        {pathKey("the directory to go to")},
                        {cwdKey(), successKey(), reasonKey()}}) {}
    std::string getName() const override { return "SetDir"; }
    void execute(const Properties& args, Properties& response) override {
        const std::wstring path = pathIn(args);
        const bool changed = Platform::filesystem().setCurrentDirectory(path);
        tell(response, changed ? 0 : errno, path);
        response.set(CWD_KEY, changed ? path : Platform::filesystem().getCurrentDirectory());
    }
};

class ListDir : public QueryCommand {
public:
    ListDir()
        : QueryCommand({"Lists a directory.",
                        {pathKey("the directory")},
                        {{DIRS_KEY, "vector of text", "names of the sub-directories"},
                         {FILES_KEY, "vector of text", "names of the files"},
                         successKey(),
                         reasonKey()}}) {}
    std::string getName() const override { return "ListDir"; }
    void execute(const Properties& args, Properties& response) override {
        std::vector<std::wstring> directories;
        std::vector<std::wstring> files;
        const std::wstring path = pathIn(args);
        tell(response, Platform::filesystem().listDirectory(path, directories, files) ? 0 : errno, path);
        response.set(DIRS_KEY, directories);
        response.set(FILES_KEY, files);
    }
};

class GetSize : public QueryCommand {
public:
    GetSize()
        : QueryCommand({"Tells the size of a file.",
                        {pathKey("the file")},
                        {{SIZE_KEY, "long", "its size [bytes]"}}}) {}
    std::string getName() const override { return "GetSize"; }
    void execute(const Properties& args, Properties& response) override {
        response.set(SIZE_KEY, Platform::filesystem().getSize(pathIn(args)));
    }
};

class GetFileExists : public QueryCommand {
public:
    GetFileExists()
        : QueryCommand({"Tells whether a file or directory exists.",
                        {pathKey("the file or directory")},
                        {{EXISTS_KEY, "bool", "whether it exists"}}}) {}
    std::string getName() const override { return "GetFileExists"; }
    void execute(const Properties& args, Properties& response) override {
        response.set(EXISTS_KEY, Platform::filesystem().exists(pathIn(args)));
    }
};

class GetReadOnly : public QueryCommand {
public:
    GetReadOnly()
        : QueryCommand({"Tells whether a file can't be written.",
                        {pathKey("the file")},
                        {{READONLY_KEY, "bool", "whether this process may not write it"}}}) {}
    std::string getName() const override { return "GetReadOnly"; }
    void execute(const Properties& args, Properties& response) override {
        response.set(READONLY_KEY, Platform::filesystem().isReadOnly(pathIn(args)));
    }
};

class CreateFileCmd : public QueryCommand {
public:
    CreateFileCmd()
        : QueryCommand({"Creates a file; an existing one is emptied.", {pathKey("the file")}, {}}) {}
    std::string getName() const override { return "CreateFile"; }
    void execute(const Properties& args, Properties&) override {
        const std::wstring path = pathIn(args);
        if (!mayChangeFiles())
            return;
        if (!Platform::filesystem().createFile(path))
            raise(SystemError("Could not open file: " + StringHelper::toString(path),
                              Error::RECOVERABLE_SEVERITY, Properties(), Error::DEFAULT_ERROR_TYPE, true));
    }
};

class CreateFolder : public QueryCommand {
public:
    CreateFolder()
        : QueryCommand({"Makes a directory, if that is possible.",
                        {pathKey("the directory")},
                        {successKey(), reasonKey()}}) {}
    std::string getName() const override { return "CreateFolder"; }
    void execute(const Properties& args, Properties& response) override {
        const std::wstring path = pathIn(args);
        if (mayChangeFiles())
            tell(response, Platform::filesystem().makeDirectory(path) ? 0 : errno, path);
    }
};

class DeleteFileCmd : public QueryCommand {
public:
    DeleteFileCmd()
        : QueryCommand(
              {"Deletes a file, if that is possible.", {pathKey("the file")}, {successKey(), reasonKey()}}) {}
    std::string getName() const override { return "DeleteFile"; }
    void execute(const Properties& args, Properties& response) override {
        const std::wstring path = pathIn(args);
        if (mayChangeFiles())
            tell(response, Platform::filesystem().deleteFile(path) ? 0 : errno, path);
    }
};

class RenameFile : public QueryCommand {
public:
    RenameFile()
        : QueryCommand(
              {"Renames a file or directory.",
               {pathKey("the present path"), {NEW_PATH_KEY, "text", "the new path"}},
               {{OK_KEY, "int", "0, or the system's error number; -1 on a worker, which doesn't try"},
                successKey(),
                reasonKey()}}) {}
    std::string getName() const override { return "RenameFile"; }
    void execute(const Properties& args, Properties& response) override {
        const std::wstring path = pathIn(args);
        const std::wstring newPath = pathIn(args, NEW_PATH_KEY);
        const int error = mayChangeFiles() ? Platform::filesystem().rename(path, newPath) : -1;
        response.set(OK_KEY, error);
        if (error >= 0)
            tell(response, error, path + L" -> " + newPath);
    }
};

class IsWindows : public QueryCommand {
public:
    IsWindows()
        : QueryCommand({"Tells whether the server runs on Windows.",
                        {},
                        {{IS_WINDOWS_KEY, "bool", "whether it does"}}}) {}
    std::string getName() const override { return "IsWindows"; }
    void execute(const Properties&, Properties& response) override { response.set(IS_WINDOWS_KEY, false); }
};

class GetFileSystemRoots : public QueryCommand {
public:
    GetFileSystemRoots()
        : QueryCommand({"Lists the roots of the file system: where the system has no drives, the one root.",
                        {},
                        {{ROOTS_KEY, "vector of text", "the roots"}}}) {}
    std::string getName() const override { return "GetFileSystemRoots"; }
    void execute(const Properties&, Properties& response) override {
        response.set(ROOTS_KEY, Platform::filesystem().getRoots());
    }
};

} // namespace

void FileSystemCommands::registerCommands(Controller& controller) {
    controller.registerCommand(new GetDir);
    controller.registerCommand(new SetDir);
    controller.registerCommand(new ListDir);
    controller.registerCommand(new GetSize);
    controller.registerCommand(new GetFileExists);
    controller.registerCommand(new GetReadOnly);
    controller.registerCommand(new CreateFileCmd);
    controller.registerCommand(new CreateFolder);
    controller.registerCommand(new DeleteFileCmd);
    controller.registerCommand(new RenameFile);
    controller.registerCommand(new IsWindows);
    controller.registerCommand(new GetFileSystemRoots);
}

namespace {

/// At load time, so that they are there before Machine::main() runs.
const bool _registered = [] {
    FileSystemCommands::registerCommands(Controller::getSingleton());
    return true;
}();

} // namespace
