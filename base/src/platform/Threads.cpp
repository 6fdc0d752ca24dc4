#include "platform/Threads.h"

#include <pthread.h>
#include <sched.h>
#include <unistd.h>

namespace Platform {

void Threads::yield() const {
    ::sched_yield();
} // never fails on this system

void Threads::setName(const std::string& name) const {
    // A name is a help for debuggers; without it everything works.
    ::pthread_setname_np(::pthread_self(), name.substr(0, 15).c_str());
}

int Threads::getSystemId() const {
    return ::gettid();
}

Threads& threads() {
    static Threads service;
    return service;
}

} // namespace Platform
