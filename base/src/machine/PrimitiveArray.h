#pragma once

#include "mpiwrapper/OxmMpi.h"

#include <array>
#include <complex>
#include <concepts>
#include <cstddef>
#include <span>
#include <string>
#include <string_view>
#include <tuple>
#include <type_traits>
#include <utility>
#include <vector>

/// The members of a struct that travels between ranks, told once:
///
///     struct Particle { double position[3]; int cell; bool active; };
///     template <> struct StructMembers<Particle> {
///         static constexpr auto list = std::tuple(&Particle::position, &Particle::cell, &Particle::active);
///     };
///
/// From then on Communicator carries Particle like a primitive type. Members are anything that travels
/// itself; one that isn't listed keeps on the receiver what it was. The struct must be trivially copyable.
template <class T>
struct StructMembers {};

/// A value and where it was found (a rank, a cell): what Communicator::MAX_LOCATION and MIN_LOCATION reduce.
/// Of equal values the lowest index wins.
template <class T>
struct LocatedValue {
    T value;
    int index;
};

/// Adapts values and containers to what the message layer carries: arrays of elements of one datatype.
namespace PrimitiveArray {

/// The wrapper's datatype of a primitive type; 0 for all others.
template <class T>
inline constexpr int datatypeCode = OXM_MPI_DATATYPE_NULL;

template <>
inline constexpr int datatypeCode<bool> = OXM_MPI_BOOL;
template <>
inline constexpr int datatypeCode<char> = OXM_MPI_CHAR;
template <>
inline constexpr int datatypeCode<signed char> = OXM_MPI_SIGNED_CHAR;
template <>
inline constexpr int datatypeCode<unsigned char> = OXM_MPI_UNSIGNED_CHAR;
template <>
inline constexpr int datatypeCode<char8_t> = OXM_MPI_UNSIGNED_CHAR;
template <>
inline constexpr int datatypeCode<wchar_t> = OXM_MPI_WCHAR;
template <>
inline constexpr int datatypeCode<char16_t> = OXM_MPI_UNSIGNED_SHORT;
template <>
inline constexpr int datatypeCode<char32_t> = OXM_MPI_UNSIGNED;
template <>
inline constexpr int datatypeCode<short> = OXM_MPI_SHORT;
template <>
inline constexpr int datatypeCode<unsigned short> = OXM_MPI_UNSIGNED_SHORT;
template <>
inline constexpr int datatypeCode<int> = OXM_MPI_INT;
template <>
inline constexpr int datatypeCode<unsigned> = OXM_MPI_UNSIGNED;
template <>
inline constexpr int datatypeCode<long> = sizeof(long) == 8 ? OXM_MPI_INT64 : OXM_MPI_LONG;
template <>
inline constexpr int datatypeCode<unsigned long> = sizeof(unsigned long) == 8 ? OXM_MPI_UINT64
                                                                              : OXM_MPI_UNSIGNED_LONG;
template <>
inline constexpr int datatypeCode<long long> = OXM_MPI_INT64;
template <>
inline constexpr int datatypeCode<unsigned long long> = OXM_MPI_UINT64;
template <>
inline constexpr int datatypeCode<float> = OXM_MPI_FLOAT;
template <>
inline constexpr int datatypeCode<double> = OXM_MPI_DOUBLE;
template <>
inline constexpr int datatypeCode<long double> = OXM_MPI_LONG_DOUBLE;
template <>
inline constexpr int datatypeCode<std::complex<float>> = OXM_MPI_FLOAT_COMPLEX;
template <>
inline constexpr int datatypeCode<std::complex<double>> = OXM_MPI_DOUBLE_COMPLEX;
template <>
inline constexpr int datatypeCode<std::complex<long double>> = OXM_MPI_LONG_DOUBLE_COMPLEX;
template <>
inline constexpr int datatypeCode<LocatedValue<float>> = OXM_MPI_FLOAT_INT;
template <>
inline constexpr int datatypeCode<LocatedValue<double>> = OXM_MPI_DOUBLE_INT;
template <>
inline constexpr int datatypeCode<LocatedValue<long>> = OXM_MPI_LONG_INT;
template <>
inline constexpr int datatypeCode<LocatedValue<int>> = OXM_MPI_INT_INT;
template <>
inline constexpr int datatypeCode<LocatedValue<long double>> = OXM_MPI_LONG_DOUBLE_INT;

template <class T>
inline constexpr bool isLocatedValue = false;
template <class T>
inline constexpr bool isLocatedValue<LocatedValue<T>> = true;

template <class T>
concept Primitive = datatypeCode<T>
!= OXM_MPI_DATATYPE_NULL;

/// A struct whose StructMembers are told.
template <class T>
concept DescribedStruct = requires {
    StructMembers<T>::list;
};

/// How one value of T lies in memory: `stride` elements of type `t`. Specialise it, with RecordOf, for a type
/// that is nothing but an array of one type, so that it needs no datatype of its own.
template <class T>
struct Record {};

template <class Element, unsigned length>
struct RecordOf {
    using t = Element;
    static constexpr unsigned stride = length;
};

template <Primitive T>
struct Record<T> : RecordOf<T, 1> {};

template <DescribedStruct T>
struct Record<T> : RecordOf<T, 1> {
    static_assert(std::is_trivially_copyable_v<T>, "a struct with StructMembers must be trivially copyable");
};

template <class T>
requires std::is_enum_v<T>
struct Record<T> : RecordOf<std::underlying_type_t<T>, 1> {
};

template <class T, std::size_t length>
requires(length > 0 && requires { Record<T>::stride; }) struct Record<std::array<T, length>>
    : RecordOf<typename Record<T>::t, static_cast<unsigned>(length) * Record<T>::stride> {
};

template <class T, std::size_t length>
requires requires {
    Record<T>::stride;
}
struct Record<T[length]>
    : RecordOf<typename Record<T>::t, static_cast<unsigned>(length) * Record<T>::stride> {};

/// A type of fixed size that travels: a primitive type, an enumeration, std::complex, std::array of such, a
/// struct with StructMembers, or a type with a Record.
template <class T>
concept FixedSize = requires {
    Record<std::remove_cv_t<T>>::stride;
}
&&(sizeof(T) == sizeof(typename Record<std::remove_cv_t<T>>::t) * Record<std::remove_cv_t<T>>::stride);

/// A container of values of fixed size that lie one after the other: std::string, std::vector, std::span ...
template <class C>
concept Contiguous = !FixedSize<C> && requires(C & container) {
    { container.size() } -> std::convertible_to<std::size_t>;
    requires std::is_pointer_v<decltype(container.data())>;
    requires FixedSize<std::remove_pointer_t<decltype(container.data())>>;
};

/// One that a receiver can give the length of what arrives.
template <class C>
concept Resizable = Contiguous<C> && requires(C& container) {
    container.resize(std::size_t(0));
};

/// A container whose length only the sender knows, so that it travels first.
template <class C>
concept TravelsWithLength =
    Resizable<std::remove_cv_t<C>> || std::same_as<std::remove_cv_t<C>, std::string_view> ||
    std::same_as<std::remove_cv_t<C>, std::wstring_view>;

/// A value of fixed size, or a container, that isn't constant.
template <class V>
concept Receiver = (FixedSize<V> && !std::is_const_v<V>) || (Contiguous<V> && requires(V & container) {
                       requires !std::is_const_v<std::remove_pointer_t<decltype(container.data())>>;
                   });

/// An object that an operation takes whole; a pointer needs a count beside it.
template <class V>
concept Object = !std::is_pointer_v<std::remove_cvref_t<V>> && !std::is_array_v<std::remove_cvref_t<V>>;

/// Stops the compiler with a readable message at a type that can't travel.
template <class V>
constexpr bool assertTravels() {
    static_assert(!std::is_same_v<std::remove_cv_t<V>, std::vector<bool>>,
                  "std::vector<bool> packs its elements into bits and can't travel: use std::vector<char>");
    static_assert(
        FixedSize<V> || Contiguous<V> || std::is_same_v<std::remove_cv_t<V>, std::vector<bool>>,
        "this type can't travel between ranks: it is neither of fixed size (a primitive, an enumeration, "
        "std::array, a struct with StructMembers) nor a contiguous container of such");
    return true;
}

/// The same for a type that only one value of fixed size can have.
template <class T>
constexpr bool assertFixedSize() {
    static_assert(FixedSize<T>,
                  "the type of one value of fixed size is needed here, for a container that of its entries");
    return true;
}

template <class V>
struct Entries;
template <FixedSize V>
struct Entries<V> {
    using type = V;
};
template <Contiguous V>
struct Entries<V> {
    using type = std::remove_pointer_t<decltype(std::declval<V&>().data())>;
};
/// A value's own type, or that of a container's entries.
template <class V>
using EntryOf = typename Entries<std::remove_cvref_t<V>>::type;

/// The view of a container as an array of elements of one datatype.
template <class C>
class Array {
public:
    using Entry = std::remove_pointer_t<decltype(std::declval<C&>().data())>;
    using t = typename Record<std::remove_cv_t<Entry>>::t;
    using Pointer = std::conditional_t<std::is_const_v<Entry>, const t*, t*>;
    /// Elements in one entry of the container.
    static constexpr unsigned stride = Record<std::remove_cv_t<Entry>>::stride;

    explicit Array(C& source) : container(source) { look(); }

    /// Gives the container the length that `elements` elements need.
    void resize(unsigned long long elements) requires Resizable<C> {
        const auto entries = static_cast<std::size_t>(elements / stride);
        if (container.size() != entries)
            container.resize(entries);
        look();
    }

    Pointer data = nullptr;
    unsigned long long size = 0; ///< elements
    C& container;

private:
    void look() {
        data = reinterpret_cast<Pointer>(container.data());
        size = static_cast<unsigned long long>(container.size()) * stride;
    }
};

/// Stops the compiler with a readable message at a value that can't travel or can't be changed.
template <class V>
constexpr bool assertReceives() {
    using Value = std::remove_reference_t<V>;
    static_assert(assertTravels<Value>());
    static_assert(Receiver<Value> || !(FixedSize<Value> || Contiguous<Value>), "a constant can't receive");
    return true;
}

/// The same at containers between which blocks of any length can't travel.
template <class S, class R>
constexpr bool assertBlocksTravel() {
    static_assert(assertTravels<S>() && assertReceives<R>());
    static_assert(Contiguous<S> && Resizable<R>,
                  "blocks of any length travel from a container into one that can be resized: std::vector or "
                  "std::string");
    if constexpr (Contiguous<S> && Resizable<R>) {
        using Sent = Array<const S>;
        using Received = Array<R>;
        static_assert(std::is_same_v<typename Sent::t, typename Received::t> &&
                          Sent::stride == Received::stride,
                      "blocks of any length need entries of the same kind on both sides");
    }
    return true;
}

} // namespace PrimitiveArray
