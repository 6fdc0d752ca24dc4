#pragma once

#include "platform/PlatformExport.h"

#include <cstddef>
#include <cstdio>
#include <string>

namespace Platform {

/// The host's name and the descriptors behind the streams. Local, any thread.
class ORVEX_PLATFORM_EXPORT Io {
public:
    /// The name of this host as the system bears it; "localhost" when it bears none.
    std::string getHostName() const;

    /// The descriptor of a C stream, -1 when it has none.
    int getDescriptor(std::FILE* stream) const;
    /// A new descriptor for the same open file, closed when another program is started; -1 on failure.
    int duplicate(int descriptor) const;
    /// Makes `target` stand for the open file of `descriptor`. @return false on failure, `target` unchanged
    bool duplicateOver(int descriptor, int target) const;
    bool close(int descriptor) const;
    /// Writes all `count` bytes with one system call where the system allows. @return false when it can't
    bool write(int descriptor, const char* data, std::size_t count) const;
    bool isTerminal(int descriptor) const;
    /// Whether both stand for the same file, pipe or device; false when one of them stands for nothing.
    bool isSameFile(int one, int other) const;
    /// Opens those of the descriptors 0 to 2 that are closed on the null device: a file or socket opened
    /// later would become a standard stream. Allowed before any constructor has run. @return false when the
    /// system refuses
    bool openStandardDescriptors() const;
};

/// The one input-output service of the process.
ORVEX_PLATFORM_EXPORT Io& io();

} // namespace Platform
