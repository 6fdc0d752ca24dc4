#include "platform/Signals.h"

#include "platform/AlternateStack.h"
#include "platform/Pipe.h"
#include "platform/QuietThread.h"
#include "platform/StackSampler.h"
#include "platform/Thread.h"

#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <system_error>
#include <thread>
#include <ucontext.h>
#include <unistd.h>
#include <utility>

namespace Platform {

const int Signals::TERMINATE = SIGTERM;
const int Signals::INTERRUPT = SIGINT;
const int Signals::HANG_UP = SIGHUP;
const int Signals::SEGMENTATION = SIGSEGV;
const int Signals::BUS_ERROR = SIGBUS;
const int Signals::FLOATING_POINT = SIGFPE;
const int Signals::ILLEGAL = SIGILL;
const int Signals::ABORT = SIGABRT;

namespace {

constexpr int NUMBER_SIGNALS = 65;
static_assert(std::atomic<int>::is_always_lock_free, "signal handlers read it");
static_assert(std::atomic<Signals::FaultCallback>::is_always_lock_free, "signal handlers read it");

std::atomic<int> wakeDescriptor{-1};
std::atomic<int> watchOwner{0}; ///< the process that watches
std::atomic<Signals::FaultCallback> faultCallbacks[NUMBER_SIGNALS];

void setAction(int signal, const struct sigaction& action, struct sigaction* before = nullptr) {
    if (::sigaction(signal, &action, before) != 0)
        throw std::system_error(errno, std::generic_category(), "Signal " + Signals::getName(signal));
}

/// News for the watching thread.
struct Notice {
    int signal = 0; ///< 0: the watch ends
    int sender = 0;
};

/// Hands the signal to the watching thread.
void onWatched(int signal, siginfo_t* info, void*) {
    const int error = errno;
    if (::getpid() != watchOwner.load()) { // forked: the pipe leads to its parent, which wasn't meant
        ::signal(signal, SIG_DFL);
        ::raise(signal);
        return; // and takes effect here
    }
    const Notice notice{signal, info->si_code <= 0 ? info->si_pid : 0};
    // A full pipe holds the news already that something came. So few bytes go in one piece.
    if (::write(wakeDescriptor.load(), &notice, sizeof notice) < 0) {
    }
    errno = error;
}

/// The system enters a handler with the default floating-point environment. Should an exception leave it, the
/// thread goes on with the modes that it had: rounding, and the traps that are on.
void resumeFloatingPointModes([[maybe_unused]] const void* context) {
#if defined(__x86_64__)
    constexpr unsigned STATUS = 0x3F;
    const auto* registers = static_cast<const ucontext_t*>(context)->uc_mcontext.fpregs;
    if (registers == nullptr)
        return;
    const unsigned modes = registers->mxcsr & ~STATUS;
    const unsigned short control = registers->cwd;
    asm volatile("ldmxcsr %0\n\tfldcw %1" : : "m"(modes), "m"(control));
#endif
}

constinit thread_local bool strikesStackEnd __attribute__((tls_model("initial-exec"))) = false;

bool isAtStackEnd([[maybe_unused]] const siginfo_t& info, [[maybe_unused]] const void* context) {
#if defined(__x86_64__)
    const auto& registers = static_cast<const ucontext_t*>(context)->uc_mcontext.gregs;
    return info.si_signo == SIGSEGV && info.si_code > 0 &&
           AlternateStack::isOverflow(info.si_addr, static_cast<std::size_t>(registers[REG_RSP]));
#else
    return info.si_signo == SIGSEGV && info.si_code > 0 &&
           AlternateStack::isOverflow(info.si_addr, ~std::size_t(0));
#endif
}

void onFault(int signal, siginfo_t* info, void* context) {
    resumeFloatingPointModes(context);
    const StackSampler::FaultScope handling; // ends with the exception that leaves
    // A fault on the alternate stack itself is another one.
    strikesStackEnd = !strikesStackEnd && isAtStackEnd(*info, context);
    if (const auto callback = faultCallbacks[signal].load())
        callback(signal, info->si_code, info->si_addr);
    // Behind this handler a fault strikes again and finds the default course; what another process sent
    // doesn't.
    ::signal(signal, SIG_DFL);
    if (info->si_code <= 0)
        ::raise(signal);
}

/// The state of this unit. Never destroyed: a signal may come at any time.
struct Setup {
    std::mutex mutex;
    std::map<int, Signals::WatchCallback> callbacks;
    std::map<int, struct sigaction> watchedBefore;
    std::set<int> faults;
    std::unique_ptr<AlternateStack> mainStack; ///< other threads have theirs from their start
    std::unique_ptr<Pipe> pipe;                ///< made once and kept: a handler may be about to write to it
    std::thread thread;
};

Setup& getSetup() {
    static auto* setup = new Setup;
    return *setup;
}

/// The body of the watching thread.
void serve() {
    Setup& setup = getSetup();
    for (;;) {
        Notice notice;
        const int n = setup.pipe->read(reinterpret_cast<char*>(&notice), sizeof notice, -1.0);
        if (n == 0)
            continue;
        if (n < 0 || notice.signal == 0)
            return;
        Signals::WatchCallback callback;
        {
            const std::lock_guard lock(setup.mutex);
            const auto found = setup.callbacks.find(notice.signal);
            if (found != setup.callbacks.end())
                callback = found->second;
        }
        if (callback)
            callback(notice.signal, notice.sender);
    }
}

/// With the lock of `setup` held.
void startThread(Setup& setup) {
    if (!setup.pipe) {
        auto pipe = std::make_unique<Pipe>();
        const int end = pipe->getWriteDescriptor();
        if (::fcntl(end, F_SETFL, O_NONBLOCK) != 0) // a handler never waits
            throw std::system_error(errno, std::generic_category(), "Signal pipe");
        setup.pipe = std::move(pipe);
        wakeDescriptor = end;
        watchOwner = ::getpid();
    }
    if (!setup.thread.joinable())
        setup.thread = startQuietThread("signals", serve);
}

} // namespace

void Signals::watch(const std::vector<int>& signals, const WatchCallback& callback) {
    Setup& setup = getSetup();
    const std::lock_guard lock(setup.mutex);
    startThread(setup);
    for (const int signal : signals) {
        struct sigaction action {};
        action.sa_sigaction = onWatched;
        action.sa_flags = SA_RESTART | SA_SIGINFO;
        ::sigfillset(&action.sa_mask);
        struct sigaction before {};
        setup.callbacks[signal] = callback;
        setAction(signal, action, &before);
        setup.watchedBefore.emplace(signal, before); // of an earlier watch, the first one stays
    }
}

void Signals::unwatch() {
    Setup& setup = getSetup();
    std::thread thread;
    {
        const std::lock_guard lock(setup.mutex);
        for (const auto& [signal, before] : setup.watchedBefore)
            ::sigaction(signal, &before, nullptr); // was good once, so it is now
        setup.watchedBefore.clear();
        setup.callbacks.clear();
        thread = std::move(setup.thread);
        if (!thread.joinable())
            return;
        // The pipe has room: nothing but the thread's end is to come, and the thread empties it.
        const Notice end;
        while (!setup.pipe->write(reinterpret_cast<const char*>(&end), sizeof end, 0.1)) {
        }
    }
    if (thread.get_id() == std::this_thread::get_id())
        thread.detach(); // asked from a callback: the thread ends behind it
    else
        thread.join();
}

void Signals::installFaultHandler(const std::vector<int>& signals, FaultCallback callback) {
    Setup& setup = getSetup();
    const std::lock_guard lock(setup.mutex);
    if (Thread::isMain() && !setup.mainStack)
        setup.mainStack = std::make_unique<AlternateStack>();
    for (const int signal : signals) {
        if (signal <= 0 || signal >= NUMBER_SIGNALS)
            throw std::system_error(EINVAL, std::generic_category(), "Signal " + getName(signal));
        struct sigaction action {};
        action.sa_sigaction = onFault;
        // The signal stays unblocked in its handler, so an exception may leave it and a second fault comes
        // back. The exception unwinds from the alternate stack to the one that faulted: the frame of the
        // handler tells where that stood, and the system takes a thread to be on the alternate stack by its
        // stack pointer alone.
        action.sa_flags = SA_SIGINFO | SA_NODEFER | (AlternateStack::isUsed() ? SA_ONSTACK : 0);
        ::sigemptyset(&action.sa_mask);
        faultCallbacks[signal] = callback;
        setAction(signal, action);
        setup.faults.insert(signal);
    }
}

void Signals::restoreDefaults(const std::vector<int>& signals) {
    Setup& setup = getSetup();
    const std::lock_guard lock(setup.mutex);
    std::vector<int> list = signals;
    if (list.empty())
        list.assign(setup.faults.begin(), setup.faults.end());
    for (const int signal : list) {
        if (::signal(signal, SIG_DFL) == SIG_ERR)
            throw std::system_error(errno, std::generic_category(), "Signal " + getName(signal));
        setup.faults.erase(signal);
    }
}

void Signals::ignore(int signal) {
    if (::signal(signal, SIG_IGN) == SIG_ERR)
        throw std::system_error(errno, std::generic_category(), "Signal " + getName(signal));
}

bool Signals::isIgnored(int signal) const {
    struct sigaction now {};
    return ::sigaction(signal, nullptr, &now) == 0 && now.sa_handler == SIG_IGN;
}

bool Signals::isStackOverflow() {
    return strikesStackEnd;
}

const char* Signals::getDescription(int signal) {
    const char* const description = ::sigdescr_np(signal);
    return description != nullptr ? description : "a signal";
}

std::string Signals::getName(int signal) {
    const char* name = ::sigabbrev_np(signal);
    return name != nullptr ? std::string("SIG") + name : "signal " + std::to_string(signal);
}

namespace {

const char* describeFloatingPoint(int code) {
    switch (code) {
    case FPE_INTDIV:
        return "integer division by zero";
    case FPE_INTOVF:
        return "integer overflow";
    case FPE_FLTDIV:
        return "division by zero";
    case FPE_FLTOVF:
        return "overflow";
    case FPE_FLTUND:
        return "underflow";
    case FPE_FLTRES:
        return "inexact result";
    case FPE_FLTINV:
        return "invalid operation";
    default:
        return nullptr;
    }
}

const char* describeMemory(int signal, int code) {
    if (signal == SIGSEGV && code == SEGV_MAPERR)
        return "address not mapped";
    if (signal == SIGSEGV && code == SEGV_ACCERR)
        return "no permission for the address";
    if (signal == SIGBUS && code == BUS_ADRALN)
        return "misaligned address";
    if (signal == SIGBUS && code == BUS_ADRERR)
        return "no memory behind the address";
    return nullptr;
}

} // namespace

std::string Signals::getFaultText(int signal, int code) {
    const char* description = ::sigdescr_np(signal);
    std::string text = description != nullptr ? description : getName(signal);
    const char* detail = signal == SIGFPE ? describeFloatingPoint(code) : describeMemory(signal, code);
    if (code <= 0)
        detail = "sent by a process";
    return detail != nullptr ? text + ": " + detail : text;
}

Signals& signals() {
    static Signals service;
    return service;
}

} // namespace Platform
