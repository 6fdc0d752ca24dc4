#include "platform/QuietThread.h"

#include "platform/Threads.h"

#include <csignal>
#include <pthread.h>
#include <utility>

namespace {

/// Blocks what others send, and leaves open what a thread causes itself.
class SignalsBlocked {
public:
    SignalsBlocked() {
        sigset_t all;
        sigfillset(&all);
        for (const int own : {SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGTRAP, SIGABRT, SIGSYS})
            sigdelset(&all, own);
        // Can't fail: the set and the way are valid.
        pthread_sigmask(SIG_SETMASK, &all, &_before);
    }
    SignalsBlocked(const SignalsBlocked&) = delete;
    SignalsBlocked& operator=(const SignalsBlocked&) = delete;
    ~SignalsBlocked() { pthread_sigmask(SIG_SETMASK, &_before, nullptr); }

private:
    sigset_t _before{};
};

} // namespace

std::thread startQuietThread(const std::string& name, std::function<void()> body) {
    const SignalsBlocked blocked; // a new thread inherits the mask
    return std::thread([name, body = std::move(body)] {
        Platform::threads().setName(name);
        body();
    });
}
