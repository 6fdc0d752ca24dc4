#include "kernel/Raise.h"

#include <atomic>

namespace {

std::atomic<RaiseHook> raiseHook{nullptr};

} // namespace

RaiseHook setRaiseHook(RaiseHook hook) noexcept {
    return raiseHook.exchange(hook);
}

void announceRaise(Error& error) {
    if (const RaiseHook hook = raiseHook.load())
        hook(error);
}

void raiseInternalError(const std::string& message, const char* condition, const char* file, int line) {
    raise(InternalError(message, condition, file, line));
}
