#pragma once

#include "machine/DerivedDatatype.h"
#include "machine/PrimitiveArray.h"

#include <tuple>
#include <type_traits>

namespace PrimitiveArray {
/// The wrapper's datatype of an element: a code known at compile time, or the handle of a described struct.
template <class t>
int datatype();
} // namespace PrimitiveArray

/// The wrapper's datatype of a struct with StructMembers: committed on first use, freed when the message
/// layer closes. Main thread.
template <PrimitiveArray::DescribedStruct T>
class StructDatatype : private MpiCore::DerivedDatatype {
public:
    static int handle() {
        if (_ofEpoch != getEpoch()) [[unlikely]] {
            _handle = std::apply([](auto... members) { return make(members...); }, StructMembers<T>::list);
            _ofEpoch = getEpoch();
        }
        return _handle;
    }

private:
    /// Room for a T that is never built: members of it have addresses.
    union Room {
        Room() : nothing() {}
        ~Room() {}
        char nothing;
        T object;
    };

    template <class... Member>
    static int make(Member T::*... members) {
        static_assert(sizeof...(Member) > 0, "StructMembers must list at least one member");
        static_assert((PrimitiveArray::FixedSize<Member> && ...),
                      "each of StructMembers must be a type of fixed size that travels itself");
        const Room room;
        const auto* start = reinterpret_cast<const char*>(&room.object);
        const int lengths[] = {static_cast<int>(PrimitiveArray::Record<Member>::stride)...};
        const long long displacements[] = {
            static_cast<long long>(reinterpret_cast<const char*>(&(room.object.*members)) - start)...};
        const int types[] = {PrimitiveArray::datatype<typename PrimitiveArray::Record<Member>::t>()...};
        return makeLastingStructType(sizeof(T), sizeof...(Member), lengths, displacements, types);
    }

    inline static int _handle = 0;
    inline static unsigned _ofEpoch = 0;
};

template <class t>
int PrimitiveArray::datatype() {
    if constexpr (Primitive<t>)
        return datatypeCode<t>;
    else
        return StructDatatype<t>::handle();
}
