#include "platform/PrivateFile.h"

#include "platform/Descriptor.h"
#include "platform/FileSystem.h"
#include "platform/ProcFs.h"
#include "platform/StringHelper.h"
#include "platform/System.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <grp.h>
#include <memory>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

namespace Platform {

namespace {

constexpr mode_t OTHERS = S_IRWXG | S_IRWXO;

/// In a container, the owner of what lies outside of it may have no number: the system shows one for all of
/// them.
bool isOutsideOfContainer(uid_t owner) {
    const auto number = ProcFs::readText("/proc/sys/kernel/overflowuid");
    const auto map = ProcFs::readText("/proc/self/uid_map");
    const std::vector<std::string> everybody{"0", "0", "4294967295"};
    return number && map && StringHelper::trim(*number) == std::to_string(owner) &&
           StringHelper::tokenize(*map, " \n") != everybody;
}

bool isTrusted(uid_t owner) {
    return owner == 0 || owner == ::geteuid() || isOutsideOfContainer(owner);
}

/// Whether the group bears this user's name and has no other member, as many systems make one for each user.
bool isPrivateGroup(gid_t id) {
    group entry{};
    group* found = nullptr;
    std::vector<char> buffer(std::size_t(1) << 16);
    if (::getgrgid_r(id, &entry, buffer.data(), buffer.size(), &found) != 0 || found == nullptr)
        return false;
    const std::string user = system().getUserName();
    for (char** member = found->gr_mem; *member != nullptr; ++member)
        if (user != *member)
            return false;
    return user == found->gr_name;
}

/// The weakness of one folder alone.
std::string judgeFolder(const std::string& path) {
    struct stat status;
    if (::lstat(path.c_str(), &status) != 0)
        return "the folder " + path + " can't be looked at: " + std::strerror(errno);
    if (!isTrusted(status.st_uid))
        return "the folder " + path + " belongs to another user (" + std::to_string(status.st_uid) + ")";
    const bool open = (status.st_mode & S_IWOTH) != 0 ||
                      ((status.st_mode & S_IWGRP) != 0 && !isPrivateGroup(status.st_gid));
    if (open && (status.st_mode & S_ISVTX) == 0)
        return "others may write to the folder " + path + " (remedy: chmod go-w " + path + ")";
    return {};
}

/// The path without links, empty with errno set when it leads nowhere.
std::string resolve(const std::wstring& path) {
    const std::string name = StringHelper::toString(path);
    const std::unique_ptr<char, decltype(&std::free)> whole(
        name.find('\0') == std::string::npos ? ::realpath(name.c_str(), nullptr) : nullptr, &std::free);
    return whole ? whole.get() : std::string();
}

/// All folders from the root to `path`, which holds no links: once they are good, nobody else can change
/// them.
std::string judgeAll(const std::string& path) {
    std::string weakness = judgeFolder("/");
    for (std::size_t end = 0; weakness.empty() && end < path.size() && path.size() > 1;) {
        end = std::min(path.find('/', end + 1), path.size());
        weakness = judgeFolder(path.substr(0, end));
    }
    return weakness;
}

std::string judgeFile(const struct stat& status, std::size_t maxBytes) {
    if (!S_ISREG(status.st_mode))
        return "it isn't a regular file";
    if (status.st_uid != ::geteuid())
        return "it belongs to another user (" + std::to_string(status.st_uid) + ")";
    if ((status.st_mode & OTHERS) != 0)
        return "it isn't for this user alone (remedy: chmod 600)";
    if (static_cast<std::size_t>(status.st_size) > maxBytes)
        return "it is larger than " + std::to_string(maxBytes) + " bytes";
    return {};
}

/// None with errno set when the system fails, or when there are more than `maxBytes` bytes after all.
std::optional<std::string> readAll(int file, std::size_t maxBytes) {
    std::string content(maxBytes + 1, '\0');
    std::size_t size = 0;
    while (size < content.size()) {
        const ssize_t n = ::read(file, content.data() + size, content.size() - size);
        if (n == 0)
            break;
        if (n < 0 && errno != EINTR)
            return std::nullopt;
        size += static_cast<std::size_t>(std::max<ssize_t>(n, 0));
    }
    content.resize(size);
    errno = EFBIG;
    return size <= maxBytes ? std::optional(std::move(content)) : std::nullopt;
}

} // namespace

std::string PrivateFile::findWeakness(const std::wstring& directory) {
    const std::string path = resolve(directory);
    return path.empty() ? std::string("the folder can't be found: ") + std::strerror(errno) : judgeAll(path);
}

std::optional<std::string> PrivateFile::read(const std::wstring& path, std::size_t maxBytes,
                                             std::string& reason) {
    const std::wstring whole = filesystem().getAbsolutePath(path);
    const std::size_t slash = whole.rfind(L'/');
    errno = ENOENT;
    const std::string folder = slash == std::wstring::npos
                                   ? std::string()
                                   : resolve(whole.substr(0, std::max<std::size_t>(slash, 1)));
    reason = folder.empty() ? std::strerror(errno) : judgeAll(folder);
    if (!reason.empty())
        return std::nullopt;
    const std::string name = folder + "/" + StringHelper::toString(whole.substr(slash + 1));
    // Without waiting: what looks like a file may be a pipe without a writer.
    const Descriptor file(::open(name.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
    struct stat status;
    if (!file || ::fstat(file.get(), &status) != 0) {
        reason = errno == ELOOP ? "it is a symbolic link" : std::strerror(errno);
        return std::nullopt;
    }
    reason = judgeFile(status, maxBytes);
    if (!reason.empty())
        return std::nullopt;
    std::optional<std::string> content = readAll(file.get(), maxBytes);
    if (!content)
        reason = std::strerror(errno);
    return content;
}

} // namespace Platform
