#pragma once

#include "platform/PlatformExport.h"

#include <cstddef>
#include <memory>
#include <string>

namespace Platform {

/// Reads a file that this user alone can open, again and again, also while its owner writes to it. Local; one
/// thread at a time.
class ORVEX_PLATFORM_EXPORT PrivateFileReader {
public:
    /// A symbolic link isn't followed. The folder isn't looked at: only this user can make such a file.
    /// @param reason  gets, when it returns null, why: the file is missing, is another user's, or isn't
    ///                a regular file for this user alone. In words for people
    static std::unique_ptr<PrivateFileReader> open(const std::string& path, std::string& reason);
    PrivateFileReader(const PrivateFileReader&) = delete;
    PrivateFileReader& operator=(const PrivateFileReader&) = delete;
    ~PrivateFileReader();

    /// [bytes] When it was opened.
    std::size_t getSize() const { return _size; }
    /// Copies `bytes` bytes from `offset` on. @return false when the file doesn't have them
    bool read(std::size_t offset, void* target, std::size_t bytes) const;

private:
    PrivateFileReader(int file, std::size_t size) : _file(file), _size(size) {}

    int _file;
    std::size_t _size;
};

} // namespace Platform
