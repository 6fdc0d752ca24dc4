#pragma once

#include "platform/PlatformExport.h"

#include <cstddef>
#include <memory>
#include <string>

namespace Platform {

/// A new file of this user whose bytes are memory of this process: what was written to it outlives the
/// process in any case, and the host never. One thread at a time.
class ORVEX_PLATFORM_EXPORT MappedFile {
public:
    /// Makes the file, with zeros in it and for this user alone, and takes all its memory now: a later write
    /// can't fail. What stands at `path` already, a symbolic link too, is left alone.
    /// @param reason  gets, when it returns null, why there is no such file, in words for people
    static std::unique_ptr<MappedFile> create(const std::string& path, std::size_t bytes,
                                              std::string& reason);
    MappedFile(const MappedFile&) = delete;
    MappedFile& operator=(const MappedFile&) = delete;
    /// The file stays.
    ~MappedFile();

    /// Begins at a page.
    void* getData() const { return _data; }

    /// Whether the files of a folder lie in memory. On a disk a write to mapped memory may wait for the disk.
    static bool isMemory(const std::string& folder);

private:
    MappedFile(void* data, std::size_t bytes) : _data(data), _bytes(bytes) {}

    void* _data;
    std::size_t _bytes;
};

} // namespace Platform
