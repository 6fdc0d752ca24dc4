#pragma once

#include "machine/PrimitiveArray.h"

#include <array>
#include <complex>
#include <type_traits>
#include <vector>

// Values of every kind that travels, made from a number, so that a test can tell what each rank must hold.

/// A struct with padding behind and between its members.
struct Particle {
    char kind = 0;
    double position[3] = {};
    int cell = 0;
    std::array<short, 3> marks = {};

    bool operator==(const Particle& other) const = default;
};

template <>
struct StructMembers<Particle> {
    static constexpr auto list =
        std::tuple(&Particle::kind, &Particle::position, &Particle::cell, &Particle::marks);
};

/// A struct with a described one inside.
struct Swarm {
    bool active = false;
    Particle leader;

    bool operator==(const Swarm& other) const = default;
};

template <>
struct StructMembers<Swarm> {
    static constexpr auto list = std::tuple(&Swarm::active, &Swarm::leader);
};

/// Nothing but numbers: travels as three of them.
struct Vector3 {
    float x = 0, y = 0, z = 0;

    bool operator==(const Vector3& other) const = default;
};

template <>
struct PrimitiveArray::Record<Vector3> : PrimitiveArray::RecordOf<float, 3> {};

enum class Phase : unsigned char {};

template <class T>
bool operator==(const LocatedValue<T>& a, const LocatedValue<T>& b) {
    return a.value == b.value && a.index == b.index;
}

template <class T>
struct MakeValue {
    static T from(unsigned n) {
        if constexpr (std::is_same_v<T, bool>)
            return n % 3 == 0;
        else
            return static_cast<T>(n % 100 + 1); // small enough that sums of a few fit into a char
    }
};
template <class T>
struct MakeValue<std::complex<T>> {
    static std::complex<T> from(unsigned n) { return {MakeValue<T>::from(n), MakeValue<T>::from(n + 5)}; }
};
template <class T>
struct MakeValue<LocatedValue<T>> {
    static LocatedValue<T> from(unsigned n) { return {MakeValue<T>::from(n), static_cast<int>(n)}; }
};
template <class T, std::size_t length>
struct MakeValue<std::array<T, length>> {
    static std::array<T, length> from(unsigned n) {
        std::array<T, length> made;
        for (T& each : made)
            each = MakeValue<T>::from(n++);
        return made;
    }
};
template <>
struct MakeValue<Vector3> {
    static Vector3 from(unsigned n) { return {float(n), float(n + 1), float(n + 2)}; }
};
template <>
struct MakeValue<Particle> {
    static Particle from(unsigned n) {
        return {char('a' + n % 26), {n + 0.5, -1.0 * n, 3.0}, static_cast<int>(n) - 7, {1, short(n), 3}};
    }
};
template <>
struct MakeValue<Swarm> {
    static Swarm from(unsigned n) { return {n % 2 == 0, MakeValue<Particle>::from(n)}; }
};

/// `count` values, different for each `seed`.
template <class T>
std::vector<T> makeValues(unsigned seed, std::size_t count) {
    std::vector<T> values;
    for (std::size_t i = 0; i < count; ++i)
        values.push_back(MakeValue<T>::from(seed * 13 + static_cast<unsigned>(i) * 7));
    return values;
}
