#include "platform/StackTracer.h"

#include "platform/Io.h"

#include <csignal>
#include <cstdint>
#include <cstdlib>
#include <cxxabi.h>
#include <dlfcn.h>
#include <link.h>
#include <memory>
#include <mutex>
#include <pthread.h>
#include <sstream>
#include <unistd.h>
#include <unwind.h>
#include <utility>
#include <vector>

// libbacktrace, told here since its header lies in a folder that only g++ looks into.
extern "C" {
struct backtrace_state;
using backtrace_error_callback = void (*)(void* data, const char* message, int error);
using backtrace_full_callback = int (*)(void* data, std::uintptr_t pc, const char* file, int line,
                                        const char* function);
using backtrace_syminfo_callback = void (*)(void* data, std::uintptr_t pc, const char* symbol,
                                            std::uintptr_t value, std::uintptr_t size);
backtrace_state* backtrace_create_state(const char* program, int threaded, backtrace_error_callback error,
                                        void* data);
int backtrace_pcinfo(backtrace_state* state, std::uintptr_t pc, backtrace_full_callback callback,
                     backtrace_error_callback error, void* data);
int backtrace_syminfo(backtrace_state* state, std::uintptr_t pc, backtrace_syminfo_callback callback,
                      backtrace_error_callback error, void* data);
}

namespace Platform {

namespace {

struct Capture {
    const void** frames;
    std::size_t maxFrames;
    std::size_t skip;
    std::size_t count = 0;
};

_Unwind_Reason_Code takeFrame(_Unwind_Context* context, void* data) {
    auto& capture = *static_cast<Capture*>(data);
    int beforeInstruction = 0;
    std::uintptr_t address = _Unwind_GetIPInfo(context, &beforeInstruction);
    if (address == 0)
        return _URC_END_OF_STACK;
    if (beforeInstruction != 0)
        ++address; // where a signal struck: as if it were a return address, like all others
    if (capture.skip > 0) {
        --capture.skip;
        return _URC_NO_REASON;
    }
    if (capture.count == capture.maxFrames)
        return _URC_END_OF_STACK;
    capture.frames[capture.count++] =
        reinterpret_cast<const void*>(address); // NOLINT: what the unwinder tells
    return _URC_NO_REASON;
}

/// How often libraries came and went: libbacktrace knows only those that were there when its state was made.
unsigned long long countLibraryChanges() {
    unsigned long long changes = 0;
    ::dl_iterate_phdr(
        [](dl_phdr_info* info, std::size_t, void* data) {
            *static_cast<unsigned long long*>(data) = info->dlpi_adds + info->dlpi_subs;
            return 1;
        },
        &changes);
    return changes;
}

void ignoreError(void*, const char*, int) {} // what can't be found stays unknown

/// The debug information of the process. A state can't be given back, so one is made per change of the loaded
/// libraries, when a trace is asked for, and no more.
backtrace_state* getState() {
    static std::mutex mutex;
    static backtrace_state* state = nullptr;
    static unsigned long long changesThen = 0;
    const std::lock_guard lock(mutex);
    const unsigned long long changes = countLibraryChanges();
    if (state == nullptr || changes != changesThen) {
        state = ::backtrace_create_state(nullptr, 1, ignoreError, nullptr);
        changesThen = changes;
    }
    return state;
}

struct Place {
    std::string function;
    std::string file;
    int line = 0;
};

/// Called for inlined functions too, the innermost first. The last one is the function that has the others in
/// it.
int takePlace(void* data, std::uintptr_t, const char* file, int line, const char* function) {
    Place place;
    if (function != nullptr)
        place.function = Platform::StackTracer::demangle(function);
    if (file != nullptr) {
        place.file = file;
        place.line = line;
    }
    static_cast<std::vector<Place>*>(data)->push_back(place);
    return 0;
}

/// The line table may know a function by its short name only; the symbol table knows classes and arguments.
/// It has no inlined functions, though: its name counts when it is the same function's.
void takeSymbol(void* data, std::uintptr_t, const char* symbol, std::uintptr_t, std::uintptr_t) {
    auto& function = static_cast<Place*>(data)->function;
    if (symbol == nullptr)
        return;
    const std::string whole = Platform::StackTracer::demangle(symbol);
    if (whole.find(function) != std::string::npos)
        function = whole;
}

std::vector<Place> findPlaces(std::uintptr_t pc) {
    std::vector<Place> places;
    backtrace_state* const state = getState();
    if (state != nullptr)
        ::backtrace_pcinfo(state, pc, takePlace, ignoreError, &places);
    if (places.empty())
        places.emplace_back();
    if (state != nullptr)
        for (Place& place : places)
            if (place.function.find('(') == std::string::npos)
                ::backtrace_syminfo(state, pc, takeSymbol, ignoreError, &place);
    return places;
}

/// One text for each function that stands at this address.
std::vector<std::string> describe(const void* frame) {
    std::vector<std::string> texts;
    const auto pc = reinterpret_cast<std::uintptr_t>(frame) - 1; // into the call before the return address
    Dl_info library{};
    const bool known = ::dladdr(static_cast<const char*>(frame) - 1, &library) != 0;
    for (Place& place : findPlaces(pc)) {
        if (place.function.empty() && known && library.dli_sname != nullptr)
            place.function = Platform::StackTracer::demangle(library.dli_sname);
        std::ostringstream text;
        if (place.function.empty())
            text << frame;
        else
            text << place.function;
        if (!place.file.empty())
            text << " at " << place.file << ":" << place.line;
        else if (known && library.dli_fname != nullptr)
            text << " in " << library.dli_fname;
        texts.push_back(text.str());
    }
    return texts;
}

/// Ends the process when the scope lasts too long, by the alarm's default course.
class EndOfPatience {
public:
    EndOfPatience() {
        constexpr unsigned PATIENCE = 20; // [s] debug information of large programs takes a while
        struct sigaction action {};
        action.sa_handler = SIG_DFL;
        sigset_t set;
        ::sigemptyset(&set);
        ::sigaddset(&set, SIGALRM);
        // None of these fails for a signal that exists.
        ::sigaction(SIGALRM, &action, &_actionBefore);
        ::pthread_sigmask(SIG_UNBLOCK, &set, &_maskBefore);
        _alarmBefore = ::alarm(PATIENCE);
    }
    EndOfPatience(const EndOfPatience&) = delete;
    EndOfPatience& operator=(const EndOfPatience&) = delete;
    ~EndOfPatience() {
        ::alarm(_alarmBefore);
        ::pthread_sigmask(SIG_SETMASK, &_maskBefore, nullptr);
        ::sigaction(SIGALRM, &_actionBefore, nullptr);
    }

private:
    struct sigaction _actionBefore {};
    sigset_t _maskBefore{};
    unsigned _alarmBefore = 0;
};

/// Takes no memory and no lock. addr2line can make names of it later.
void writeAddress(int descriptor, const void* frame) {
    char line[2 + 2 + 2 * sizeof(std::uintptr_t) + 1] = {' ', ' ', '0', 'x'};
    auto rest = reinterpret_cast<std::uintptr_t>(frame);
    for (std::size_t i = sizeof line - 2; i >= 4; --i, rest >>= 4)
        line[i] = "0123456789abcdef"[rest & 0xF];
    line[sizeof line - 1] = '\n';
    io().write(descriptor, line, sizeof line); // nobody to tell of a failure
}

} // namespace

std::string StackTracer::demangle(const char* symbol) {
    int status = 0;
    const std::unique_ptr<char, void (*)(void*)> name(
        ::abi::__cxa_demangle(symbol, nullptr, nullptr, &status), std::free);
    return status == 0 && name ? name.get() : symbol;
}

[[gnu::noinline]] std::size_t StackTracer::capture(const void** frames, std::size_t maxFrames,
                                                   std::size_t skip) const {
    Capture capture{frames, maxFrames, skip + 1}; // this function's own frame comes first
    _Unwind_Backtrace(takeFrame, &capture);
    return capture.count;
}

std::vector<std::string> StackTracer::resolve(const void* const* frames, std::size_t count) const {
    std::vector<std::string> texts;
    for (std::size_t i = 0; i < count; ++i)
        for (std::string& text : describe(frames[i]))
            texts.push_back(std::move(text));
    return texts;
}

[[gnu::noinline]] std::vector<std::string> StackTracer::getStackTrace(std::size_t maxFrames) const {
    std::vector<const void*> frames(maxFrames);
    const std::size_t count = capture(frames.data(), maxFrames, 1);
    return resolve(frames.data(), count);
}

[[gnu::noinline]] void StackTracer::writeStackTrace(int descriptor, std::size_t maxFrames) const {
    constexpr std::size_t MOST = 256;
    const void* frames[MOST];
    const std::size_t count = capture(frames, maxFrames < MOST ? maxFrames : MOST, 1);
    for (std::size_t i = 0; i < count; ++i)
        writeAddress(descriptor, frames[i]);
    const EndOfPatience patience;
    for (std::size_t i = 0; i < count; ++i) {
        // One by one: when a later frame can't be described, the earlier ones are out.
        std::string lines;
        for (const std::string& text : describe(frames[i]))
            lines += "  " + text + "\n";
        if (!io().write(descriptor, lines.data(), lines.size()))
            return;
    }
}

StackTracer& error() {
    static StackTracer service;
    return service;
}

} // namespace Platform
