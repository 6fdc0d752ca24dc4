#include "platform/FileSystem.h"

#include "platform/Descriptor.h"
#include "platform/StringHelper.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <sys/stat.h>
#include <system_error>
#include <unistd.h>

namespace Platform {

namespace {

namespace fs = std::filesystem;

/// The system would cut a path at its first zero character and act on another file: such a path leads
/// nowhere.
constexpr const char* NOWHERE = "";

std::string narrow(const std::wstring& path) {
    return path.find(L'\0') == std::wstring::npos ? StringHelper::toBytes(path) : std::string(NOWHERE);
}

std::wstring widen(const fs::path& path) {
    return StringHelper::fromBytes(path.native());
}

bool writeAll(int file, const std::string& content) {
    std::size_t done = 0;
    while (done < content.size()) {
        const ssize_t n = ::write(file, content.data() + done, content.size() - done);
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0)
            return false;
        done += static_cast<std::size_t>(n);
    }
    return true;
}

constexpr mode_t OTHERS = S_IRWXG | S_IRWXO;
constexpr mode_t ALL_READ_AND_WRITE = S_IRUSR | S_IWUSR | S_IRGRP | S_IWGRP | S_IROTH | S_IWOTH;

/// The kind of what `path` leads to, 0 when there is nothing.
mode_t kindOf(const std::wstring& path) {
    struct stat status;
    return ::stat(narrow(path).c_str(), &status) == 0 ? status.st_mode & S_IFMT : 0;
}

} // namespace

std::wstring FileSystem::getCurrentDirectory() const {
    std::error_code error;
    const fs::path path = fs::current_path(error);
    return error ? std::wstring() : widen(path);
}

bool FileSystem::setCurrentDirectory(const std::wstring& path) {
    return ::chdir(narrow(path).c_str()) == 0;
}

bool FileSystem::listDirectory(const std::wstring& path, std::vector<std::wstring>& directories,
                               std::vector<std::wstring>& files) const {
    directories.clear();
    files.clear();
    std::error_code error;
    fs::directory_iterator entry(narrow(path), error);
    while (!error && entry != fs::directory_iterator()) {
        std::error_code unreadable;
        const bool isDir = entry->is_directory(unreadable);
        (isDir ? directories : files).push_back(widen(entry->path().filename()));
        entry.increment(error);
    }
    if (error) {
        directories.clear();
        files.clear();
        errno = error.value();
        return false;
    }
    std::sort(directories.begin(), directories.end());
    std::sort(files.begin(), files.end());
    return true;
}

bool FileSystem::makeDirectory(const std::wstring& path) {
    return ::mkdir(narrow(path).c_str(), S_IRWXU | S_IRWXG | S_IRWXO) == 0 ||
           (errno == EEXIST && isDirectory(path));
}

bool FileSystem::makeDirectories(const std::wstring& path) {
    std::error_code error;
    fs::create_directories(narrow(path), error); // false for one that exists already, too
    return isDirectory(path);
}

std::wstring FileSystem::makeTemporaryDirectory(const std::wstring& parent, const std::wstring& prefix) {
    std::string pattern = narrow(join(parent, prefix)) + "XXXXXX";
    return ::mkdtemp(pattern.data()) != nullptr ? StringHelper::fromBytes(pattern) : std::wstring();
}

bool FileSystem::exists(const std::wstring& path) const {
    struct stat status;
    return ::stat(narrow(path).c_str(), &status) == 0;
}

bool FileSystem::isDirectory(const std::wstring& path) const {
    struct stat status;
    return ::stat(narrow(path).c_str(), &status) == 0 && S_ISDIR(status.st_mode);
}

long long FileSystem::getSize(const std::wstring& path) const {
    struct stat status;
    return ::stat(narrow(path).c_str(), &status) == 0 && S_ISREG(status.st_mode) ? status.st_size : -1;
}

double FileSystem::getModificationTime(const std::wstring& path) const {
    struct stat status;
    if (::stat(narrow(path).c_str(), &status) != 0)
        return -1.0;
    return static_cast<double>(status.st_mtim.tv_sec) + static_cast<double>(status.st_mtim.tv_nsec) * 1e-9;
}

bool FileSystem::isReadOnly(const std::wstring& path) const {
    return exists(path) && ::faccessat(AT_FDCWD, narrow(path).c_str(), W_OK, AT_EACCESS) != 0;
}

bool FileSystem::createFile(const std::wstring& path) {
    const mode_t kind = kindOf(path);
    if (kind != 0 && kind != S_IFREG && kind != S_IFDIR) { // the system refuses a directory by itself
        errno = EINVAL;
        return false;
    }
    // Without waiting, should a pipe stand there by now; the system refuses to empty that.
    const Descriptor file(::open(narrow(path).c_str(), O_WRONLY | O_CREAT | O_NONBLOCK | O_NOCTTY | O_CLOEXEC,
                                 ALL_READ_AND_WRITE));
    return file && ::ftruncate(file.get(), 0) == 0;
}

std::FILE* FileSystem::createPrivateFile(const std::wstring& path) {
    const std::string name = narrow(path);
    ::unlink(name.c_str()); // what can't be removed lets the next step fail
    Descriptor file(
        ::open(name.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, S_IRUSR | S_IWUSR));
    std::FILE* const stream = file ? ::fdopen(file.get(), "w") : nullptr;
    if (stream != nullptr)
        file.release();
    return stream;
}

bool FileSystem::canBeRead(const std::wstring& path) const {
    const mode_t kind = kindOf(path);
    return kind != S_IFDIR && kind != S_IFIFO && kind != S_IFSOCK;
}

bool FileSystem::canBeWritten(const std::wstring& path) const {
    const mode_t kind = kindOf(path);
    if (kind != S_IFIFO)
        return kind != S_IFSOCK;
    return bool(Descriptor(::open(narrow(path).c_str(), O_WRONLY | O_NONBLOCK | O_CLOEXEC)));
}

bool FileSystem::deleteFile(const std::wstring& path) {
    return ::unlink(narrow(path).c_str()) == 0;
}

bool FileSystem::deleteTree(const std::wstring& path) {
    std::error_code error;
    const std::uintmax_t count = fs::remove_all(narrow(path), error);
    return !error && count > 0;
}

int FileSystem::rename(const std::wstring& from, const std::wstring& to) {
    return std::rename(narrow(from).c_str(), narrow(to).c_str()) == 0 ? 0 : errno;
}

std::string FileSystem::toSystem(const std::wstring& path) const {
    return narrow(path);
}

std::wstring FileSystem::fromSystem(const std::string& path) const {
    return StringHelper::fromBytes(path);
}

std::wstring FileSystem::getFilePath(const std::wstring& path) const {
    std::wstring result;
    result.reserve(path.size());
    for (const wchar_t character : path) {
        if (character != getSeparator() || result.empty() || result.back() != getSeparator())
            result.push_back(character);
    }
    return result;
}

std::wstring FileSystem::getAbsolutePath(const std::wstring& path) const {
    if (path.empty())
        return {};
    const std::wstring whole = path.front() == getSeparator() ? path : join(getCurrentDirectory(), path);
    std::wstring result = widen(fs::path(narrow(whole)).lexically_normal());
    if (result.size() > 1 && result.back() == getSeparator())
        result.pop_back();
    return result;
}

std::wstring FileSystem::join(const std::wstring& directory, const std::wstring& name) const {
    if (directory.empty() || directory.back() == getSeparator())
        return directory + name;
    return directory + getSeparator() + name;
}

std::wstring FileSystem::getDefaultTemporaryDirectory() const {
    std::error_code error;
    const fs::path path = fs::temp_directory_path(error);
    if (!error)
        return widen(path);
    return isDirectory(L"/tmp") ? L"/tmp" : L"";
}

std::wstring FileSystem::getNullDevice() const {
    return L"/dev/null";
}

std::vector<std::string> FileSystem::getRoots() const {
    return {"/"};
}

bool FileSystem::makePrivateDirectory(const std::wstring& path) {
    const std::wstring whole = getAbsolutePath(path);
    const std::size_t last = whole.rfind(getSeparator());
    const std::wstring parent = whole.substr(0, last);
    if (last == std::wstring::npos || (last > 0 && !isDirectory(parent) && !makePrivateDirectory(parent)))
        return false;
    const std::string name = narrow(whole);
    if (::mkdir(name.c_str(), S_IRWXU) != 0 && errno != EEXIST)
        return false;
    const Descriptor directory(::open(name.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    struct stat status;
    if (!directory || ::fstat(directory.get(), &status) != 0 || status.st_uid != ::geteuid())
        return false;
    return (status.st_mode & OTHERS) == 0 || ::fchmod(directory.get(), S_IRWXU) == 0;
}

bool FileSystem::writePrivateFile(const std::wstring& path, const std::string& content) {
    const std::string name = narrow(path);
    std::string temporary = name + ".XXXXXX";
    Descriptor file(::mkostemp(temporary.data(), O_CLOEXEC)); // made for this user alone
    if (!file)
        return false;
    const bool written = writeAll(file.get(), content);
    const bool closed = ::close(file.release()) == 0;
    if (written && closed && std::rename(temporary.c_str(), name.c_str()) == 0)
        return true;
    ::unlink(temporary.c_str()); // best effort: the failure is told already
    return false;
}

bool FileSystem::readFile(const std::wstring& path, std::string& content, std::size_t maxBytes) const {
    // Without waiting: what looks like a file may be a pipe without a writer.
    const Descriptor file(::open(narrow(path).c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
    struct stat status;
    if (!file || ::fstat(file.get(), &status) != 0 || !S_ISREG(status.st_mode))
        return false;
    std::string text;
    char buffer[1 << 14];
    for (;;) {
        const ssize_t n = ::read(file.get(), buffer, sizeof buffer);
        if (n < 0 && errno == EINTR)
            continue;
        if (n < 0 || text.size() + static_cast<std::size_t>(n) > maxBytes)
            return false;
        if (n == 0)
            break;
        text.append(buffer, static_cast<std::size_t>(n));
    }
    content = std::move(text);
    return true;
}

FileSystem& filesystem() {
    static FileSystem service;
    return service;
}

} // namespace Platform
