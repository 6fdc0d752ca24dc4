#pragma once

#include "platform/PlatformExport.h"

#include <cstddef>
#include <memory>

namespace Platform {

/// Memory of a process. [bytes]; a value that the system doesn't tell is 0.
struct MemoryUse {
    long long virtualSize = 0;
    long long virtualHighWater = 0;
    long long residentSize = 0;
    long long residentHighWater = 0;
    long long sharedLibraries = 0;
};

/// Asks the system, again and again, for the memory of one process; keeps its way to the answer open.
/// One thread at a time.
class ORVEX_PLATFORM_EXPORT MemoryQuery {
public:
    explicit MemoryQuery(int pid);
    MemoryQuery(const MemoryQuery&) = delete;
    MemoryQuery& operator=(const MemoryQuery&) = delete;
    ~MemoryQuery();

    /// All five values. @return false, with `use` unchanged, when the process can't be read
    bool query(MemoryUse& use);
    /// Sizes of now only, a tenth of the time of query(): the high-water marks and the libraries stay.
    bool querySizes(MemoryUse& use);

private:
    int _status = -1;
    int _statm = -1;
};

/// Memory of processes and of the host. Local, any thread.
class ORVEX_PLATFORM_EXPORT Memory {
public:
    std::unique_ptr<MemoryQuery> createQuery(int pid) const;
    /// Has the system give the pages of [`begin`, `begin` + `bytes`) their memory now, on the NUMA node of
    /// this thread, with zeros where they had none. Without memory a later access would end the process by a
    /// signal. @return false when there isn't enough; true also on a system that can't do it
    bool reservePages(void* begin, std::size_t bytes) const;
    /// [bytes] free in the file system that holds the shared memory of this host's processes, and its place;
    /// the largest number when that can't be told.
    unsigned long long getFreeSharedMemory() const;
    static const char* const SHARED_MEMORY_FOLDER;
    /// [bytes] that processes of this host can still get without swapping; the largest number when that can't
    /// be told.
    unsigned long long getAvailable() const;
    /// [bytes] of a page.
    std::size_t getPageSize() const;
};

/// The one memory service of the process.
ORVEX_PLATFORM_EXPORT Memory& memory();

} // namespace Platform
