#include "platform/ProcessUse.h"

#include "platform/Memory.h"
#include "platform/ProcFs.h"

#include <algorithm>
#include <cstdlib>
#include <ctime>
#include <string>
#include <unistd.h>

namespace Platform {

namespace {

/// [s] by the process's own clock, which is finer than its page; nothing by another user's process.
double readProcessorTime(int pid, double otherwise) {
    clockid_t clock = 0;
    timespec time{};
    if (::clock_getcpuclockid(pid, &clock) != 0 || ::clock_gettime(clock, &time) != 0)
        return otherwise;
    return static_cast<double>(time.tv_sec) + 1e-9 * static_cast<double>(time.tv_nsec);
}

/// [bytes] of a line such as "MemTotal:  1234 kB"; 0 when there is none.
long long findValue(const std::string& page, const std::string& key) {
    const std::size_t place = page.find(key);
    return place == std::string::npos ? 0
                                      : std::strtoll(page.c_str() + place + key.size(), nullptr, 10) * 1024;
}

} // namespace

ProcessUse ProcessUse::read(int pid, unsigned long long startStamp) {
    ProcessUse use;
    const auto stat = ProcFs::readStat(pid);
    if (!stat || (startStamp != 0 && stat->startStamp != startStamp))
        return use;
    use.state = ThreadState::toState(stat->state);
    use.startStamp = stat->startStamp;
    use.memory = stat->residentPages * static_cast<long long>(Platform::memory().getPageSize());
    static const auto ticks = static_cast<double>(::sysconf(_SC_CLK_TCK));
    use.processorSeconds = readProcessorTime(pid, static_cast<double>(stat->processorTicks) / ticks);
    return use;
}

HostUse HostUse::read() {
    HostUse use;
    if (const auto load = ProcFs::readText("/proc/loadavg", 256))
        use.load = std::strtod(load->c_str(), nullptr);
    if (const auto page = ProcFs::readText("/proc/meminfo", 8192)) {
        use.memory = findValue(*page, "MemTotal:");
        use.freeMemory = findValue(*page, "MemAvailable:");
    }
    use.processors = static_cast<unsigned>(std::max(::sysconf(_SC_NPROCESSORS_ONLN), 0L));
    return use;
}

} // namespace Platform
