#pragma once

#include "kernel/Error.h"
#include "kernel/KernelExport.h"

#include <type_traits>
#include <utility>

/// Called with every non-recoverable error just before it is thrown, on the raising thread.
using RaiseHook = void (*)(Error&);

/// Installs `hook` (null: none) and returns the one before it. Any thread.
ORVEX_KERNEL_EXPORT RaiseHook setRaiseHook(RaiseHook hook) noexcept;

/// Calls the raise hook, if one is installed. Part of raise(); nobody else calls it.
ORVEX_KERNEL_EXPORT void announceRaise(Error& error);

/// The one way out for an error: announces a non-recoverable one to the raise hook, then throws.
template <class E>
[[noreturn]] void raise(E error) {
    static_assert(std::is_base_of_v<Error, E>, "raise() throws errors of the Error family only");
    if constexpr (std::is_base_of_v<NonRecoverableError, E>)
        announceRaise(error);
    throw std::move(error);
}

/// Builds and raises the InternalError of a failed assertion, out of line so that the test stays cheap.
[[noreturn]] ORVEX_KERNEL_EXPORT void raiseInternalError(const std::string& message, const char* condition,
                                                         const char* file, int line);

/// Asserts `condition`, evaluated once; its own text is the condition text of the InternalError.
/// `message` is evaluated on failure only.
#define ORVEX_ASSERT(condition, message) ORVEX_ASSERT_AS(condition, #condition, message)

/// The same with a condition text of its own.
#define ORVEX_ASSERT_AS(condition, conditionText, message)                                                   \
    do {                                                                                                     \
        if (!(condition)) [[unlikely]]                                                                       \
            raiseInternalError((message), (conditionText), __FILE__, __LINE__);                              \
    } while (false)
