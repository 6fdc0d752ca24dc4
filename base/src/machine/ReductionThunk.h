#pragma once

#include <type_traits>

/// Lets the message layer, which knows bytes only, call a solver's function that combines two records.
template <class T, class F>
class ReductionThunk {
    static constexpr bool isStateless = std::is_empty_v<F> && std::is_default_constructible_v<F>;
    static constexpr bool givesResult = std::is_invocable_r_v<T, F, const T&, const T&>;
    static_assert(isStateless || std::is_pointer_v<F>,
                  "a reduction combines by a plain function or by a lambda without captures");
    static_assert(
        givesResult || std::is_invocable_v<F, const T&, T&>,
        "a reduction's function is T combine(const T&, const T&) or void combine(const T& from, T& into)");

public:
    using Function = void (*)(void* in, void* inout, int* length, int* datatype);

    /// The function to hand down. A plain function is kept until the next call of of() for its type:
    /// reductions block, and one thread makes them.
    static Function of([[maybe_unused]] F combine) {
        if constexpr (!isStateless)
            _function = combine;
        return &run;
    }

private:
    static void run(void* in, void* inout, int* length, int*) noexcept {
        const T* from = static_cast<const T*>(in);
        T* into = static_cast<T*>(inout);
        for (int i = 0; i < *length; ++i)
            if constexpr (givesResult)
                into[i] = _function(from[i], into[i]);
            else
                _function(from[i], into[i]);
    }

    inline static F _function{};
};
