#pragma once

#include "platform/PlatformExport.h"

/// Gives every thread of the process an AlternateStack at its start, and tells one watcher of the threads
/// that come and go. Inside this project.
class ORVEX_PLATFORM_EXPORT ThreadStacks {
public:
    /// Told on the thread concerned. It lives as long as the process, and throws nothing.
    class ORVEX_PLATFORM_EXPORT Watcher {
    public:
        virtual ~Watcher();
        /// A thread that the main thread has made begins.
        virtual void noteStart() noexcept = 0;
        /// Any thread that began while this was the watcher ends.
        virtual void noteEnd() noexcept = 0;
    };

    /// Any thread. Null: nobody is told.
    static void setWatcher(Watcher* told);
    /// False in a build with sanitizers, whose runtime starts the threads: there the watcher hears nothing.
    static bool seesAllThreads();
};
