#include "platform/Memory.h"

#include "platform/ProcFs.h"

#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <string>
#include <string_view>
#include <unistd.h>

namespace Platform {

namespace {

/// Opens a page of a process by its number, so that a page that is kept open doesn't follow a fork.
int openPage(int pid, const char* page) {
    return ::open(("/proc/" + std::to_string(pid) + "/" + page).c_str(), O_RDONLY | O_CLOEXEC);
}

/// Reads a page anew from its beginning, with a terminating zero. @return its length, 0 on failure
std::size_t readPage(int file, char* buffer, std::size_t size) {
    if (file < 0)
        return 0;
    const ssize_t n = ::pread(file, buffer, size - 1, 0);
    if (n <= 0)
        return 0;
    buffer[n] = '\0';
    return static_cast<std::size_t>(n);
}

/// [bytes] of a line such as "VmSize:  1234 kB"; 0 when there is none.
long long findValue(std::string_view page, std::string_view key) {
    const std::size_t place = page.find(key);
    if (place == std::string_view::npos)
        return 0;
    return std::strtoll(page.data() + place + key.size(), nullptr, 10) * 1024;
}

} // namespace

MemoryQuery::MemoryQuery(int pid) : _status(openPage(pid, "status")), _statm(openPage(pid, "statm")) {}

MemoryQuery::~MemoryQuery() {
    for (const int file : {_status, _statm}) {
        if (file >= 0)
            ::close(file);
    }
}

bool MemoryQuery::query(MemoryUse& use) {
    char buffer[8192];
    const std::size_t length = readPage(_status, buffer, sizeof buffer);
    const std::string_view page(buffer, length);
    if (page.find("\nVmSize:") == std::string_view::npos)
        return false; // gone, or a process without memory of its own
    use.virtualSize = findValue(page, "\nVmSize:");
    use.virtualHighWater = findValue(page, "\nVmPeak:");
    use.residentSize = findValue(page, "\nVmRSS:");
    use.residentHighWater = findValue(page, "\nVmHWM:");
    use.sharedLibraries = findValue(page, "\nVmLib:");
    return true;
}

bool MemoryQuery::querySizes(MemoryUse& use) {
    static const long long pageSize = ::sysconf(_SC_PAGESIZE);
    char buffer[256];
    if (readPage(_statm, buffer, sizeof buffer) == 0)
        return false;
    char* next = nullptr;
    const long long total = std::strtoll(buffer, &next, 10);
    const long long resident = std::strtoll(next, nullptr, 10);
    if (total <= 0)
        return false;
    use.virtualSize = total * pageSize;
    use.residentSize = resident * pageSize;
    return true;
}

std::unique_ptr<MemoryQuery> Memory::createQuery(int pid) const {
    return std::make_unique<MemoryQuery>(pid);
}

Memory& memory() {
    static Memory service;
    return service;
}

} // namespace Platform
