#pragma once

#if defined(__has_feature)
#define ORVEX_HAS_SANITIZER(name) __has_feature(name)
#else
#define ORVEX_HAS_SANITIZER(name) 0
#endif

/// What an instrumented build can't show.
namespace Sanitizers {

/// Freed memory is kept for a while.
#if defined(__SANITIZE_ADDRESS__) || ORVEX_HAS_SANITIZER(address_sanitizer) ||                               \
    defined(__SANITIZE_THREAD__) || ORVEX_HAS_SANITIZER(thread_sanitizer)
constexpr bool GIVES_MEMORY_BACK = false;
#else
constexpr bool GIVES_MEMORY_BACK = true;
#endif

/// The thread sanitizer stands between a signal and its thread: no error passes there.
#if defined(__SANITIZE_THREAD__) || ORVEX_HAS_SANITIZER(thread_sanitizer)
constexpr bool PASSES_FAULTS = false;
#else
constexpr bool PASSES_FAULTS = true;
#endif

} // namespace Sanitizers
