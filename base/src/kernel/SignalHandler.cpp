#include "kernel/SignalHandler.h"

#include "kernel/Controller.h"
#include "kernel/Error.h"
#include "kernel/FaultWatchdog.h"
#include "kernel/Raise.h"
#include "kernel/ReportStream.h"
#include "kernel/Subject.h"
#include "platform/FpuHandling.h"
#include "platform/Log.h"
#include "platform/Process.h"
#include "platform/Signals.h"
#include "platform/StackTracer.h"
#include "platform/StringHelper.h"
#include "platform/Time.h"

#include <atomic>
#include <csignal>
#include <cstdlib>
#include <deque>
#include <exception>
#include <mutex>
#include <sstream>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

bool SignalHandler::_catchFpeSignals = false;

namespace {

constexpr const char* SIGNAL_TAG = "Signal";
constexpr const char* SIGNAL_NUMBER_TAG = "SignalNumber";
constexpr const char* ADDRESS_TAG = "Address";
constexpr std::size_t MAX_TRACE_FRAMES = 48;

/// How far this thread is in the handling of a fault.
enum class FaultState { NONE, HANDLING, ENDING };
constinit thread_local FaultState faultState __attribute__((tls_model("initial-exec"))) = FaultState::NONE;

bool installed = false;
/// The callback from before stays alive: a fault may be about to call it.
std::atomic<const std::function<void()>*> abortCallback{nullptr};
std::atomic<const std::function<void(std::string_view)>*> lastWordsCallback{nullptr};
std::atomic<bool> processEnds{false};
std::atomic<double> faultTimeLimit{SignalHandler::FAULT_TIME_LIMIT};
std::atomic<double> hookTimeLimit{SignalHandler::HOOK_TIME_LIMIT};
std::terminate_handler terminateBefore = nullptr;

/// Not a function-local object: it must be there when the first fault strikes.
FaultWatchdog watchdog;

const std::vector<int>& faultSignals() {
    static const std::vector<int> signals{Platform::Signals::SEGMENTATION, Platform::Signals::BUS_ERROR,
                                          Platform::Signals::ILLEGAL, Platform::Signals::FLOATING_POINT,
                                          Platform::Signals::ABORT};
    return signals;
}

void sayLastWords(std::string_view reason) {
    if (const auto* callback = lastWordsCallback.load())
        (*callback)(reason);
}

/// Ends the process through the abort callback; the first thread does it, any other one waits for the end.
[[noreturn]] void endProcess(int signal, const std::string& reason) {
    if (processEnds.exchange(true))
        while (true)
            Platform::time().sleep(SignalHandler::FAULT_TIME_LIMIT);
    faultState = FaultState::ENDING;
    watchdog.arm(signal, faultTimeLimit);
    sayLastWords(reason);
    if (const std::function<void()>* callback = abortCallback.load())
        (*callback)();
    std::set_terminate(nullptr);
    std::abort();
}

/// A fault that strikes while this thread handles another one.
[[noreturn]] void endInFault(int signal, int code) {
    if (faultState == FaultState::ENDING)
        std::_Exit(128 + signal);
    faultState = FaultState::ENDING;
    watchdog.arm(signal, faultTimeLimit);
    sayLastWords(Platform::Signals::getDescription(signal)); // without the heap, which may be at fault
    ReportStream::write(
        "\nFault in the handling of a fault: " + Platform::Signals::getFaultText(signal, code) + "\n");
    Platform::error().writeStackTrace(ReportStream::getDescriptor(), MAX_TRACE_FRAMES);
    endProcess(signal, Platform::Signals::getFaultText(signal, code));
}

/// Prints a fault whose error could not pass; every other exception keeps the course that it had.
void onTerminate() {
    if (const std::exception_ptr current = std::current_exception()) {
        try {
            std::rethrow_exception(current);
        } catch (const Error& error) {
            const Properties& properties = error.getProperties();
            if (properties.hasName(SIGNAL_NUMBER_TAG)) {
                std::string text = std::string("\nFault where no error can pass: ") + error.what() + "\n";
                std::istringstream trace(properties.getString(Error::STACK_TRACE_TAG));
                for (std::string line; std::getline(trace, line);)
                    text += "  " + line + "\n";
                ReportStream::write(text);
                endProcess(properties.getInt(SIGNAL_NUMBER_TAG), error.what());
            }
        } catch (...) {
            // Not ours.
        }
    }
    if (terminateBefore != nullptr)
        terminateBefore();
    std::abort();
}

/// Stands before the terminate handler that is installed by now.
void watchTerminate() {
    const std::terminate_handler now = std::get_terminate();
    if (now == onTerminate)
        return;
    terminateBefore = now;
    std::set_terminate(onTerminate);
}

bool isFloatingPointTrap(int signal, const std::string& text) {
    return signal == Platform::Signals::FLOATING_POINT && text.find("integer") == std::string::npos;
}

Properties describeFault(int signal, const std::string& text, void* address) {
    const void* frames[MAX_TRACE_FRAMES];
    const std::size_t count = Platform::error().capture(frames, MAX_TRACE_FRAMES, 2);
    std::ostringstream where;
    where << address;
    Properties properties;
    properties.set(SIGNAL_TAG, Platform::Signals::getName(signal));
    properties.set(SIGNAL_NUMBER_TAG, signal);
    properties.set(ADDRESS_TAG, where.str());
    properties.set(Error::MESSAGE_TAG, text);
    properties.set(Error::STACK_TRACE_TAG,
                   StringHelper::join(Platform::error().resolve(frames, count), "\n"));
    return properties;
}

void tellObservers(Properties properties) {
    try {
        Controller::getSingleton().getSignalRaisedObservable().notify(properties);
    } catch (const std::exception& error) {
        OS::Log::instance("Default").error("SignalHandler::tellObservers", "@0@", error.what());
    }
}

/// Another process wants this one to end, or it ends itself by abort(): the default course follows.
void speakBeforeDefault(int signal, int code, bool isSent) {
    if (faultState == FaultState::ENDING)
        return; // the end that was begun
    faultState = FaultState::ENDING;
    watchdog.arm(signal, faultTimeLimit);
    if (isSent) {
        sayLastWords(Platform::Signals::getFaultText(signal, code));
        return;
    }
    sayLastWords("abort() was called");
    ReportStream::write("\nabort() was called:\n");
    Platform::error().writeStackTrace(ReportStream::getDescriptor(), MAX_TRACE_FRAMES);
}

[[noreturn]] void endAtStackEnd(int signal) {
    constexpr const char* TEXT = "Stack overflow";
    faultState = FaultState::ENDING;
    watchdog.arm(signal, faultTimeLimit);
    ReportStream::write(std::string("\n") + TEXT + ":\n");
    Platform::error().writeStackTrace(ReportStream::getDescriptor(), MAX_TRACE_FRAMES);
    endProcess(signal, TEXT);
}

/// While it lives, this thread handles a fault: another fault, or a handling without an end, ends the
/// process.
class HandlingScope {
public:
    explicit HandlingScope(int signal) {
        faultState = FaultState::HANDLING;
        watchdog.arm(signal, faultTimeLimit);
    }
    ~HandlingScope() {
        watchdog.disarm();
        faultState = FaultState::NONE;
    }
    HandlingScope(const HandlingScope&) = delete;
    HandlingScope& operator=(const HandlingScope&) = delete;
};

/// Raises the error of the fault. The raise hook may wait for other ranks, so it gets a time limit of its
/// own.
[[noreturn]] void raiseFault(const std::string& text, const Properties& properties, bool isTrap) {
    watchdog.extend(hookTimeLimit);
    if (!isTrap)
        raise(NonRecoverableError(text, properties));
    // One rank alone must not go on from here while the others wait for it, so this error is announced, too.
    FloatingPointError error(text, Error::NON_RECOVERABLE_SEVERITY, properties);
    announceRaise(error);
    raise(std::move(error));
}

/// Turns the fault into an error on this thread.
void onFault(int signal, int code, void* address) {
    const bool isSent = code == SI_USER || code == SI_QUEUE;
    if (isSent || signal == Platform::Signals::ABORT) {
        speakBeforeDefault(signal, code, isSent);
        return;
    }
    if (faultState != FaultState::NONE)
        endInFault(signal, code);
    if (Platform::Signals::isStackOverflow())
        endAtStackEnd(signal);
    const HandlingScope handling(signal); // until the error has left this function
    const std::string text = Platform::Signals::getFaultText(signal, code);
    const Properties properties = describeFault(signal, text, address);
    tellObservers(properties);
    watchTerminate();
    raiseFault(text, properties, isFloatingPointTrap(signal, text));
}

} // namespace

void SignalHandler::setCatchFpeSignals(bool on) {
    if (on) {
        install();
        FpuHandling::enableTraps(FpuEnvironmentAccessKey(), FpuHandling::ALL);
    } else {
        FpuHandling::disableTraps(FpuEnvironmentAccessKey(), FpuHandling::ALL);
    }
    _catchFpeSignals = on;
}

void SignalHandler::install() {
    if (installed)
        return;
    watchdog.start();
    Platform::signals().installFaultHandler(faultSignals(), onFault);
    Platform::signals().ignore(SIGPIPE);
    Platform::signals().ignore(SIGXFSZ); // the write that is too large fails with EFBIG
    installed = true;
}

void SignalHandler::uninstall() {
    if (!installed)
        return;
    Platform::signals().restoreDefaults(faultSignals());
    watchdog.stop();
    installed = false;
}

void SignalHandler::setTimeLimits(double fault, double hook) {
    faultTimeLimit = fault;
    hookTimeLimit = hook;
}

void SignalHandler::setAbortCallback(std::function<void()> callback) {
    static std::mutex mutex;
    static auto* const all = new std::deque<std::function<void()>>;
    const std::lock_guard guard(mutex);
    abortCallback.store(callback ? &all->emplace_back(std::move(callback)) : nullptr);
}

void SignalHandler::setLastWordsCallback(std::function<void(std::string_view reason)> callback) {
    static std::mutex mutex;
    static auto* const all = new std::deque<std::function<void(std::string_view)>>;
    const std::lock_guard guard(mutex);
    lastWordsCallback.store(callback ? &all->emplace_back(std::move(callback)) : nullptr);
}

void SignalHandler::announceEndSignals() {
    std::vector<int> signals;
    for (const int signal : {SIGQUIT, SIGXCPU, SIGUSR1, SIGUSR2}) {
        struct sigaction now {};
        if (::sigaction(signal, nullptr, &now) == 0 && now.sa_handler == SIG_DFL)
            signals.push_back(signal);
    }
    Platform::signals().watch(signals, [](int signal, int) {
        sayLastWords(Platform::Signals::getFaultText(signal, SI_USER));
        Platform::signals().restoreDefaults({signal});
        ::kill(Platform::process().getPid(), signal); // to a thread that doesn't block it
    });
}

void SignalHandler::setStopCallback(std::function<void(int signal, int sender)> callback) {
    if (!callback) {
        Platform::signals().unwatch();
        return;
    }
    std::vector<int> signals{Platform::Signals::TERMINATE, Platform::Signals::INTERRUPT};
    if (!Platform::signals().isIgnored(Platform::Signals::HANG_UP))
        signals.push_back(Platform::Signals::HANG_UP);
    Platform::signals().watch(signals, [callback = std::move(callback)](int signal, int sender) {
        try {
            callback(signal, sender);
        } catch (const std::exception& error) {
            OS::Log::instance("Default").error("SignalHandler::setStopCallback", "@0@", error.what());
        }
    });
}
