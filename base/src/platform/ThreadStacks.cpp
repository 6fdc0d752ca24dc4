// A stack for fault handlers in every thread of the process, also in those that others start: a solver's own
// threads, OpenMP's and TBB's can run out of stack like any other. The function of the C library is called
// through this one.

#include "platform/ThreadStacks.h"

#include "platform/AlternateStack.h"
#include "platform/PlatformExport.h"
#include "platform/Thread.h"

#include <atomic>

#include <cerrno>
#include <dlfcn.h>
#include <memory>
#include <new>
#include <pthread.h>

namespace {

std::atomic<ThreadStacks::Watcher*> watcher{nullptr};

} // namespace

ThreadStacks::Watcher::~Watcher() = default;

void ThreadStacks::setWatcher(Watcher* told) {
    watcher.store(told, std::memory_order_release);
}

bool ThreadStacks::seesAllThreads() {
    return !ORVEX_HAS_RUNTIME_STACKS;
}

#if !ORVEX_HAS_RUNTIME_STACKS

namespace {

using Body = void* (*)(void*);

struct Start {
    Body body;
    void* argument;
    bool isOfMain; ///< the main thread has made it
};

/// Tells the watcher of a thread's start, and of its end: also when the thread leaves by pthread_exit().
class Life {
public:
    explicit Life(bool isOfMain) : _watcher(watcher.load(std::memory_order_acquire)) {
        if (_watcher && isOfMain)
            _watcher->noteStart();
    }
    ~Life() {
        if (_watcher)
            _watcher->noteEnd();
    }
    Life(const Life&) = delete;
    Life& operator=(const Life&) = delete;

private:
    ThreadStacks::Watcher* _watcher;
};

void* run(void* data) {
    const Start start = *std::unique_ptr<Start>(static_cast<Start*>(data));
    const AlternateStack faultStack;
    const Life life(start.isOfMain);
    return start.body(start.argument);
}

} // namespace

extern "C" ORVEX_PLATFORM_EXPORT int pthread_create(pthread_t* thread, const pthread_attr_t* attributes,
                                                    Body body, void* argument) noexcept {
    using Create = int (*)(pthread_t*, const pthread_attr_t*, Body, void*);
    static const auto create = reinterpret_cast<Create>(::dlsym(RTLD_NEXT, "pthread_create"));
    std::unique_ptr<Start> start(new (std::nothrow) Start{body, argument, Thread::isMain()});
    if (create == nullptr || !start)
        return EAGAIN;
    const int error = create(thread, attributes, run, start.get());
    if (error == 0)
        static_cast<void>(start.release()); // the thread's
    return error;
}

#endif
