#include "platform/StackSampler.h"

#include "platform/StackTracer.h"
#include "platform/Time.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdint>
#include <mutex>
#include <string_view>
#include <sys/syscall.h>
#include <ucontext.h>
#include <unistd.h>
#include <vector>

namespace Platform {

namespace {

constexpr std::size_t CAPACITY = 512; ///< frames; the outer ones of a deeper stack are cut

/// Which question the main thread is about to answer, and how far it is: a question's number and a step.
enum Step : unsigned { IDLE = 0, ASKED = 1, WRITING = 2, DONE = 3 };
constexpr unsigned STEPS = 4;
static_assert(std::atomic<unsigned>::is_always_lock_free, "a signal handler uses it");

struct Answer {
    std::atomic<unsigned> step{IDLE};
    const void* frames[CAPACITY];
    std::size_t count = 0;
    const void* place = nullptr; ///< where the signal struck, as if it were a return address
};
Answer answer;

std::atomic<int> signalNumber{0};
std::atomic<int> faults{0};
std::atomic<pid_t> mainThread{0};
/// The return address of the outermost frame of a whole stack.
const void* root = nullptr;
struct sigaction actionBefore {};

const void* placeOf([[maybe_unused]] const void* context) {
#if defined(__x86_64__)
    const auto counter =
        static_cast<std::uintptr_t>(static_cast<const ucontext_t*>(context)->uc_mcontext.gregs[REG_RIP]);
    return reinterpret_cast<const void*>(counter + 1); // NOLINT: an address of the program
#elif defined(__aarch64__)
    const std::uintptr_t counter = static_cast<const ucontext_t*>(context)->uc_mcontext.pc;
    return reinterpret_cast<const void*>(counter + 1); // NOLINT: an address of the program
#else
    return nullptr;
#endif
}

/// On the main thread. Takes no lock and no memory.
void onQuestion(int, siginfo_t* info, void* context) {
    const int error = errno;
    const auto question = static_cast<unsigned>(info->si_value.sival_int);
    unsigned expected = question * STEPS + ASKED;
    // A question that nobody waits for any more, or a signal of another process, changes nothing.
    if (info->si_code == SI_QUEUE && info->si_pid == ::getpid() &&
        answer.step.compare_exchange_strong(expected, question * STEPS + WRITING)) {
        answer.place = placeOf(context);
        answer.count = Platform::error().capture(answer.frames, CAPACITY);
        answer.step.store(question * STEPS + DONE);
    }
    errno = error;
}

bool isFree(int signal) {
    struct sigaction action {};
    if (::sigaction(signal, nullptr, &action) != 0)
        return false;
    return (action.sa_flags & SA_SIGINFO) == 0 && action.sa_handler == SIG_DFL;
}

bool ask(unsigned question) {
    siginfo_t info{};
    info.si_code = SI_QUEUE;
    info.si_pid = ::getpid();
    info.si_uid = ::getuid();
    info.si_value.sival_int = static_cast<int>(question);
    answer.step.store(question * STEPS + ASKED);
    return ::syscall(SYS_rt_tgsigqueueinfo, ::getpid(), mainThread.load(), signalNumber.load(), &info) == 0;
}

bool waitFor(unsigned step) {
    constexpr double LOOK = 1e-4; // [s]
    const double start = time().getTime();
    while (answer.step.load() != step) {
        if (time().getTime() - start > StackSampler::PATIENCE)
            return answer.step.load() == step;
        time().sleep(LOOK);
    }
    return true;
}

/// The return addresses where the signal struck, without the handler; empty without an answer.
std::vector<const void*> capture(std::string& reason) {
    static unsigned questions = 0; // under the mutex of sample()
    constexpr unsigned NUMBERS = 1u << 20;
    if (answer.step.load() % STEPS == WRITING) {
        reason = "the main thread still writes down an earlier stack";
        return {};
    }
    const unsigned question = ++questions % NUMBERS;
    if (!ask(question)) {
        reason = "the system refuses the signal";
        return {};
    }
    if (!waitFor(question * STEPS + DONE)) {
        unsigned expected = question * STEPS + ASKED;
        answer.step.compare_exchange_strong(expected, IDLE);
        reason = "the main thread doesn't answer: it is stopped, blocks the signal or waits for a device";
        return {};
    }
    const void* const* const begin = answer.frames;
    const void* const* const end = begin + answer.count;
    const void* const* const first = std::find(begin, end, answer.place);
    if (first != end)
        return std::vector<const void*>(first, end);
    // A sanitizer calls the handler later, from a function of its own.
    if (answer.count > 1 && *(end - 1) == root)
        return std::vector<const void*>(begin + 1, end);
    return {answer.place}; // code without unwind rows: the place alone is known
}

bool isWhole(const std::vector<const void*>& frames) {
    return !frames.empty() && (frames.back() == root || answer.count == CAPACITY);
}

/// Without the arguments of templates: "std::vector<>::push_back" is enough to find the place.
std::string withoutArguments(std::string_view text) {
    std::string result;
    unsigned depth = 0;
    for (std::size_t i = 0; i < text.size(); ++i) {
        const char letter = text[i];
        const bool isOperator = result.ends_with("operator") || result.ends_with("operator<") ||
                                result.ends_with("operator>") || result.ends_with('-');
        if (letter == '<' && (depth != 0 || !isOperator) && ++depth == 1)
            result += '<';
        else if (letter == '>' && depth != 0 && text[i - 1] != '-' && --depth == 0)
            result += '>';
        else if (depth == 0)
            result += letter;
    }
    return depth == 0 ? result : std::string(text);
}

} // namespace

bool StackSampler::install() {
    constexpr int RESERVED = 4; // profilers and debuggers like the first ones
    if (signalNumber.load() != 0)
        return true;
    const void* frames[CAPACITY];
    const std::size_t count = error().capture(frames, CAPACITY); // loads the unwinder, too
    root = count == 0 ? nullptr : frames[count - 1];
    mainThread = static_cast<pid_t>(::syscall(SYS_gettid));
    struct sigaction action {};
    action.sa_sigaction = onQuestion;
    action.sa_flags = SA_SIGINFO | SA_RESTART | SA_ONSTACK;
    ::sigfillset(&action.sa_mask);
    for (const int faultSignal : {SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGABRT, SIGTRAP})
        ::sigdelset(&action.sa_mask, faultSignal);
    for (int signal = SIGRTMIN + RESERVED; signal <= SIGRTMAX; ++signal) {
        if (!isFree(signal) || ::sigaction(signal, &action, &actionBefore) != 0)
            continue;
        signalNumber = signal;
        return true;
    }
    return false;
}

void StackSampler::uninstall() {
    const int signal = signalNumber.exchange(0);
    if (signal == 0)
        return;
    // Ignored first: one that is on its way would end the process by the default course.
    ::signal(signal, SIG_IGN);
    ::sigaction(signal, &actionBefore, nullptr); // can't fail for a signal that took a handler
}

int StackSampler::getSignal() {
    return signalNumber.load();
}

std::vector<std::string> StackSampler::sample(std::size_t maxFrames, std::string* whyNot) {
    constexpr int TRIES = 3;
    static std::mutex mutex;
    std::string reason;
    std::vector<const void*> best;
    {
        const std::lock_guard lock(mutex);
        if (signalNumber.load() == 0)
            reason = "no signal is installed for it";
        else if (mainThread.load() == static_cast<pid_t>(::syscall(SYS_gettid)))
            reason = "the main thread can't ask itself";
        for (int i = 0; i < TRIES && reason.empty(); ++i) {
            if (faults.load() != 0) {
                reason = "the process handles a fault";
                break;
            }
            const std::vector<const void*> frames = capture(reason);
            if (frames.size() > best.size())
                best = frames;
            if (isWhole(frames))
                break;
        }
    }
    if (whyNot)
        *whyNot = best.empty() ? reason : std::string();
    std::vector<std::string> texts = error().resolve(best.data(), std::min(best.size(), maxFrames));
    for (std::string& text : texts)
        text = withoutArguments(text);
    return texts;
}

StackSampler::FaultScope::FaultScope() {
    ++faults;
}

StackSampler::FaultScope::~FaultScope() {
    --faults;
}

} // namespace Platform
