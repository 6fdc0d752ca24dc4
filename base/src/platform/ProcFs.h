#pragma once

#include <cstddef>
#include <optional>
#include <string>

/// Reads the system's process pages. Private to the platform layer.
namespace ProcFs {

struct Stat {
    std::string name; ///< at most 15 characters
    char state = '?';
    int parent = 0;
    unsigned long long processorTicks = 0; ///< user and system, all threads
    unsigned long long startStamp = 0;
    long long residentPages = 0;
};

/// Nothing when there is no such process.
std::optional<Stat> readStat(int pid);
/// The same of a process or thread by its folder, for example "/proc/1/task/1".
std::optional<Stat> readStatAt(const std::string& folder);
/// A small file of the system, at most `maxBytes` of it; nothing when it can't be read.
std::optional<std::string> readText(const std::string& path, std::size_t maxBytes = 1u << 20);
/// A descriptor that becomes readable when the process ends; -1 when there is no such process or the system
/// has no such descriptors.
int openEndOfProcess(int pid);
/// The path behind a symbolic link; empty, with errno set, when it can't be read.
std::string readLink(const std::string& path);
/// The executable of a process, without what the system adds when it was replaced; empty with errno set.
std::string readExecutable(const std::string& pid);

} // namespace ProcFs
