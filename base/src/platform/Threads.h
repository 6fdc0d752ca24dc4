#pragma once

#include "platform/PlatformExport.h"

#include <string>

namespace Platform {

/// The calling thread. Local, any thread.
class ORVEX_PLATFORM_EXPORT Threads {
public:
    /// Lets other threads go first.
    void yield() const;
    /// Names the calling thread for debuggers; the system keeps 15 characters.
    void setName(const std::string& name) const;
    /// The operating system's number of the calling thread.
    int getSystemId() const;
};

/// The one threads service of the process.
ORVEX_PLATFORM_EXPORT Threads& threads();

} // namespace Platform
