#pragma once

#include "kernel/Error.h"
#include "kernel/Properties.h"

#include <algorithm>
#include <cstdint>
#include <string>

/// Reads keys of another process's text, which is not trusted.
namespace LiveKeys {

/// The value under `key`; it stays what it was when there is none of that type.
template <class T>
void read(const Properties& properties, const std::string& key, T& value) {
    if (!properties.hasName(key))
        return;
    try {
        properties.get(key, value);
    } catch (const InputError&) {
        // It stays what it was.
    }
}

inline void read(const Properties& properties, const std::string& key, std::uint64_t& value) {
    long long number = 0;
    read(properties, key, number);
    value = static_cast<std::uint64_t>(std::max(number, 0LL));
}

} // namespace LiveKeys
