#include "platform/AlternateStack.h"

#include <csignal>
#include <cstdint>
#include <pthread.h>
#include <sys/mman.h>
#include <unistd.h>

namespace {

constexpr bool IS_USED = !ORVEX_HAS_RUNTIME_STACKS;

/// Room for traces with debug information and for the message layer's abort; only touched pages cost memory.
constexpr std::size_t SIZE = std::size_t(1) << 20;
constexpr std::size_t GUARD = std::size_t(64) << 10;

/// The low end of this thread's stack, 0 while unknown.
constinit thread_local std::size_t stackEnd __attribute__((tls_model("initial-exec"))) = 0;

std::size_t findStackEnd() {
    pthread_attr_t attributes;
    if (::pthread_getattr_np(::pthread_self(), &attributes) != 0)
        return 0;
    void* lowest = nullptr;
    std::size_t size = 0;
    const int failed = ::pthread_attr_getstack(&attributes, &lowest, &size);
    ::pthread_attr_destroy(&attributes); // never fails on this system
    return failed != 0 ? 0 : reinterpret_cast<std::uintptr_t>(lowest);
}

} // namespace

AlternateStack::AlternateStack() {
    if (!IS_USED)
        return;
    stackEnd = findStackEnd();
    void* const memory =
        ::mmap(nullptr, GUARD + SIZE, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_STACK, -1, 0);
    if (memory == MAP_FAILED)
        return;
    stack_t stack{};
    stack.ss_sp = static_cast<char*>(memory) + GUARD;
    stack.ss_size = SIZE;
    if (::mprotect(stack.ss_sp, SIZE, PROT_READ | PROT_WRITE) == 0 && ::sigaltstack(&stack, nullptr) == 0)
        _memory = memory;
    else
        ::munmap(memory, GUARD + SIZE); // ours, so it can't fail
}

AlternateStack::~AlternateStack() {
    if (_memory == nullptr)
        return;
    stack_t none{};
    none.ss_flags = SS_DISABLE;
    if (::sigaltstack(&none, nullptr) == 0) // refused while a handler runs there: then it stays
        ::munmap(_memory, GUARD + SIZE);
}

bool AlternateStack::isUsed() {
    return IS_USED;
}

bool AlternateStack::isOverflow(const void* address, std::size_t stackPointer) {
    constexpr std::size_t LAST_BYTES = 4096; // less can't hold the frame of a call and its callee
    const auto struck = reinterpret_cast<std::uintptr_t>(address);
    if (stackEnd == 0)
        return false;
    return stackPointer < stackEnd + LAST_BYTES || (struck < stackEnd && struck >= stackEnd - GUARD);
}
