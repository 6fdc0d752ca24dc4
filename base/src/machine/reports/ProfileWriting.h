#pragma once

#include "kernel/profile/ProfileLayout.h"

#include <algorithm>
#include <cstddef>
#include <string>

/// Marks a record of the profile as being written, for its scope.
class ProfileWriting {
public:
    explicit ProfileWriting(ProfileLayout::Word& sequence) : _sequence(sequence) {
        _sequence.fetch_add(1, std::memory_order_acq_rel); // what follows isn't written before it
    }
    ~ProfileWriting() {
        _sequence.store(_sequence.load(std::memory_order_relaxed) + 1, std::memory_order_release);
    }
    ProfileWriting(const ProfileWriting&) = delete;
    ProfileWriting& operator=(const ProfileWriting&) = delete;

    /// Cuts off the rest of a text that doesn't fit.
    template <std::size_t SIZE>
    static void copyText(char (&to)[SIZE], const std::string& text) {
        const std::size_t length = std::min(text.size(), SIZE - 1);
        std::copy_n(text.begin(), length, to);
        std::fill(to + length, to + SIZE, '\0');
    }

private:
    ProfileLayout::Word& _sequence;
};
