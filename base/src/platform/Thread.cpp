#include "platform/Thread.h"

#include "platform/InterruptableRunnable.h"
#include "platform/Runnable.h"
#include "platform/Threads.h"

#include <atomic>
#include <thread>
#include <unistd.h>

struct Thread::Impl {
    Runnable& runnable;
    std::string name;
    std::thread thread;
    std::atomic<bool> running{false};
};

Thread::Thread(Runnable& runnable, const std::string& name)
    : _impl(new Impl{runnable, name, std::thread(), {false}}) {}

Thread::~Thread() {
    if (isRunning())
        _impl->runnable.stop();
    join();
}

void Thread::start() {
    join();
    if (auto* interruptable = dynamic_cast<InterruptableRunnable*>(&_impl->runnable))
        interruptable->rearm();
    _impl->running = true;
    try {
        _impl->thread = std::thread([impl = _impl.get()] {
            if (!impl->name.empty())
                Platform::threads().setName(impl->name);
            impl->runnable.run();
            impl->running = false;
        });
    } catch (...) {
        _impl->running = false;
        throw;
    }
}

void Thread::join() {
    if (_impl->thread.joinable())
        _impl->thread.join();
}

bool Thread::isRunning() const {
    return _impl->running;
}

bool Thread::isMain() {
    enum Answer : char { UNKNOWN, MAIN, OTHER };
    static thread_local constinit Answer answer __attribute__((tls_model("initial-exec"))) = UNKNOWN;
    if (answer == UNKNOWN) [[unlikely]]
        answer = ::gettid() == ::getpid() ? MAIN : OTHER;
    return answer == MAIN;
}
