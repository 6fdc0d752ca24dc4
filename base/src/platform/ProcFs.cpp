#include "platform/ProcFs.h"

#include "platform/Descriptor.h"

#include <cerrno>
#include <cstdlib>
#include <fcntl.h>
#include <string_view>
#include <sys/syscall.h>
#include <unistd.h>

namespace ProcFs {

std::optional<std::string> readText(const std::string& path, std::size_t maxBytes) {
    const Descriptor file(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
    if (!file)
        return std::nullopt;
    std::string text;
    char buffer[4096];
    while (text.size() < maxBytes) {
        const ssize_t n = ::read(file.get(), buffer, sizeof buffer);
        if (n < 0 && errno == EINTR)
            continue;
        if (n < 0)
            return std::nullopt;
        if (n == 0)
            break;
        text.append(buffer, static_cast<std::size_t>(n));
    }
    return text;
}

std::optional<Stat> readStat(int pid) {
    return readStatAt("/proc/" + std::to_string(pid));
}

std::optional<Stat> readStatAt(const std::string& folder) {
    const auto text = readText(folder + "/stat");
    if (!text)
        return std::nullopt;
    // The name stands in parentheses and may hold any character, parentheses too: the last one closes it.
    const std::size_t open = text->find('(');
    const std::size_t close = text->rfind(')');
    if (open == std::string::npos || close == std::string::npos || close < open)
        return std::nullopt;
    Stat stat;
    stat.name = text->substr(open + 1, close - open - 1);
    const char* place = text->c_str() + close + 1;
    while (*place == ' ')
        ++place;
    if (*place == '\0')
        return std::nullopt;
    stat.state = *place++;
    constexpr int PARENT = 4;
    constexpr int USER_TIME = 14;
    constexpr int SYSTEM_TIME = 15;
    constexpr int START = 22;
    constexpr int RESIDENT = 24;
    for (int field = PARENT; field <= RESIDENT; ++field) {
        char* end = nullptr;
        const long long value = std::strtoll(place, &end, 10); // a larger one becomes the largest
        if (end == place)
            return std::nullopt;
        place = end;
        if (field == PARENT)
            stat.parent = static_cast<int>(value);
        if (field == USER_TIME || field == SYSTEM_TIME)
            stat.processorTicks += static_cast<unsigned long long>(value);
        if (field == START)
            stat.startStamp = static_cast<unsigned long long>(value);
        if (field == RESIDENT)
            stat.residentPages = value;
    }
    return stat;
}

int openEndOfProcess(int pid) {
    // The call itself: the header of the C library has no C linkage in some versions.
    return static_cast<int>(::syscall(SYS_pidfd_open, pid, 0));
}

std::string readLink(const std::string& path) {
    std::string target(256, '\0');
    while (target.size() <= (1u << 16)) {
        const ssize_t n = ::readlink(path.c_str(), target.data(), target.size());
        if (n < 0)
            return {};
        if (static_cast<std::size_t>(n) < target.size()) {
            target.resize(static_cast<std::size_t>(n));
            return target;
        }
        target.resize(target.size() * 2);
    }
    errno = ENAMETOOLONG;
    return {};
}

std::string readExecutable(const std::string& pid) {
    constexpr std::string_view REPLACED = " (deleted)";
    const std::string link = "/proc/" + pid + "/exe";
    std::string path = readLink(link);
    // A file may really bear that ending: then it is still there under its whole name.
    if (path.ends_with(REPLACED) && ::access(path.c_str(), F_OK) != 0)
        path.resize(path.size() - REPLACED.size());
    return path;
}

} // namespace ProcFs
