#include "platform/Memory.h"

#include "platform/ProcFs.h"

#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <limits>
#include <string>
#include <string_view>
#include <sys/mman.h>
#include <sys/statvfs.h>
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

const char* const Memory::SHARED_MEMORY_FOLDER = "/dev/shm";

bool Memory::reservePages(void* begin, std::size_t bytes) const {
    const std::uintptr_t page = getPageSize();
    const std::uintptr_t first = reinterpret_cast<std::uintptr_t>(begin) / page * page;
    const std::uintptr_t end = reinterpret_cast<std::uintptr_t>(begin) + bytes;
    if (bytes == 0)
        return true;
#ifdef MADV_POPULATE_WRITE
    constexpr int populate = MADV_POPULATE_WRITE;
#else
    constexpr int populate = 23;
#endif
    int code = 0;
    do
        code = ::madvise(reinterpret_cast<void*>(first), end - first, populate);
    while (code != 0 && (errno == EINTR || errno == EAGAIN));
    return code == 0 || errno == EINVAL; // older than Linux 5.14
}

unsigned long long Memory::getFreeSharedMemory() const {
    struct statvfs state {};
    if (::statvfs(SHARED_MEMORY_FOLDER, &state) != 0 || state.f_blocks == 0)
        return std::numeric_limits<unsigned long long>::max();
    return static_cast<unsigned long long>(state.f_bavail) * state.f_frsize;
}

unsigned long long Memory::getAvailable() const {
    constexpr std::string_view KEY = "MemAvailable:";
    constexpr unsigned long long KIBIBYTE = 1024;
    const std::string text = ProcFs::readText("/proc/meminfo").value_or("");
    const std::size_t place = text.find(KEY);
    return place == std::string::npos
               ? std::numeric_limits<unsigned long long>::max()
               : std::strtoull(text.c_str() + place + KEY.size(), nullptr, 10) * KIBIBYTE;
}

std::size_t Memory::getPageSize() const {
    static const auto size = static_cast<std::size_t>(::sysconf(_SC_PAGESIZE));
    return size;
}

Memory& memory() {
    static Memory service;
    return service;
}

} // namespace Platform
