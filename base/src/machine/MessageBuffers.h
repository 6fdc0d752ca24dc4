#pragma once

#include "machine/MachineExport.h"
#include "machine/PrimitiveArray.h"
#include "machine/StructDatatype.h"

#include <cstddef>
#include <limits>
#include <string>
#include <type_traits>

/// How Communicator's typed operations see the caller's memory: views for its buffer-level operations, made
/// in one place, with the one checked cast of a count. Only static members, for Communicator.
class ORVEX_MACHINE_EXPORT MessageBuffers {
public:
    // With a copy constructor of their own they are passed by address. By value each would be copied in
    // pieces wider than those it was just written in, and a processor waits for such a read longer than a
    // small call takes.
    template <class SizeType>
    struct ConstBufferBase {
        ConstBufferBase(const void* firstElement, SizeType count, int datatype, unsigned bytes)
            : data(firstElement), size(count), type(datatype), typeSize(bytes) {}
        ConstBufferBase(const ConstBufferBase& rhs)
            : data(rhs.data), size(rhs.size), type(rhs.type), typeSize(rhs.typeSize) {}
        ConstBufferBase& operator=(const ConstBufferBase&) = default;

        const void* data;
        SizeType size;     ///< elements
        int type;          ///< wrapper datatype
        unsigned typeSize; ///< [bytes] of one element
    };
    template <class SizeType>
    struct BufferBase {
        BufferBase(void* firstElement, SizeType count, int datatype, unsigned bytes)
            : data(firstElement), size(count), type(datatype), typeSize(bytes) {}
        BufferBase(const BufferBase& rhs)
            : data(rhs.data), size(rhs.size), type(rhs.type), typeSize(rhs.typeSize) {}
        BufferBase& operator=(const BufferBase&) = default;

        void* data;
        SizeType size;
        int type;
        unsigned typeSize;

        operator ConstBufferBase<SizeType>() const { return {data, size, type, typeSize}; }
    };

    static const std::string _oversizedMessageString;
    static const std::string _oversizedMessageHint;

protected:
    [[noreturn]] static void raiseInvalidCast(unsigned long long value, unsigned long long bound);

    template <class T>
    static constexpr unsigned strideOf = PrimitiveArray::Record<std::remove_cv_t<T>>::stride;

    /// The one cast of a count to what the wrapper takes.
    template <class SizeType>
    static SizeType castCount(unsigned long long count) {
        constexpr unsigned long long bound = std::numeric_limits<SizeType>::max();
        if (count > bound) [[unlikely]]
            raiseInvalidCast(count, bound);
        return static_cast<SizeType>(count);
    }

    template <class SizeType, class T>
    static auto viewOf(T* data, std::size_t count) {
        static_assert(PrimitiveArray::assertTravels<T>());
        using t = typename PrimitiveArray::Record<std::remove_cv_t<T>>::t;
        using View = std::conditional_t<std::is_const_v<T>, ConstBufferBase<SizeType>, BufferBase<SizeType>>;
        return View{data, castCount<SizeType>(count * strideOf<T>), PrimitiveArray::datatype<t>(), sizeof(t)};
    }

    /// One value of fixed size, or the content of a container.
    template <class SizeType, class V>
    static auto contentOf(V& value) {
        static_assert(PrimitiveArray::assertTravels<V>());
        if constexpr (PrimitiveArray::FixedSize<V>)
            return viewOf<SizeType>(&value, 1);
        else
            return viewOf<SizeType>(value.data(), value.size());
    }
    template <class SizeType, class V>
    static ConstBufferBase<SizeType> constContentOf(V& value) {
        return contentOf<SizeType>(value);
    }
    /// The same to receive into.
    template <class SizeType, class V>
    static BufferBase<SizeType> targetOf(V& value) {
        static_assert(PrimitiveArray::assertReceives<V>());
        if constexpr (PrimitiveArray::Receiver<V>)
            return contentOf<SizeType>(value);
    }
    static ConstBufferBase<int> wholeOf(const ConstBufferBase<unsigned>& view) {
        return {view.data, castCount<int>(view.size), view.type, view.typeSize};
    }
    static BufferBase<int> wholeOf(const BufferBase<unsigned>& view) {
        return {view.data, castCount<int>(view.size), view.type, view.typeSize};
    }
    /// The view of a sub-range.
    template <template <class> class View, class SizeType>
    static View<SizeType> partOf(View<SizeType> whole, SizeType first, SizeType size) {
        using Byte =
            std::conditional_t<std::is_same_v<View<SizeType>, BufferBase<SizeType>>, char, const char>;
        if (whole.data)
            whole.data = static_cast<Byte*>(whole.data) + static_cast<std::size_t>(first) * whole.typeSize;
        whole.size = size;
        return whole;
    }
    /// An empty view of the same type as contentOf().
    template <class SizeType, class V>
    static auto noneLike(V& value) {
        using Entry = std::remove_pointer_t<decltype(value.data())>;
        return viewOf<SizeType>(static_cast<Entry*>(nullptr), 0);
    }

    template <class V>
    static constexpr void assertOutlivesRequest() {
        static_assert(std::is_lvalue_reference_v<V> ||
                          !(PrimitiveArray::FixedSize<V> || PrimitiveArray::Resizable<V>),
                      "the message would outlive this temporary: pass a variable that lives until the wait");
    }
};
