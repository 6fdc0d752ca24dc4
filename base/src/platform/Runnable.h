#pragma once

#include "platform/PlatformExport.h"

/// The work of a Thread.
class ORVEX_PLATFORM_EXPORT Runnable {
public:
    virtual ~Runnable();
    /// The thread's body.
    virtual void run() = 0;
    /// Asks run() to return soon; doesn't wait. Any thread.
    virtual void stop() = 0;
};
