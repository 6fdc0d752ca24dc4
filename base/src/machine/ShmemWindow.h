#pragma once

#include "machine/Communicator.h"
#include "machine/ShmemWindowBase.h"

#include <atomic>
#include <concepts>
#include <cstddef>
#include <cstdint>
#include <span>
#include <type_traits>

/// An array that the ranks of one host share instead of sending it to each other. See ShmemWindowBase for
/// what is collective, and where the memory is.
///
///     ShmemWindow<double> field(n, Machine::sharedMemCommunicator(Machine::HOST_SCOPE));
///     for (double& value : field.ownShare())
///         value = start();
///     field.fence();                          // from here on every rank sees what the others wrote
///     use(field.span());
template <class T>
class ShmemWindow : public ShmemWindowBase {
    static_assert(std::is_trivially_copyable_v<T>, "other processes see the bytes alone");
    static_assert(alignof(T) <= 8, "an MPI library promises no more for a window");

public:
    /// Elements of this rank in a window that is made of the shares of all ranks, in the order of their
    /// ranks.
    struct OwnCount {
        std::size_t count;
    };

    /// `count` elements in all. @throw as ShmemWindowBase
    ShmemWindow(std::size_t count, Communicator& comm)
        : ShmemWindowBase(count, sizeof(T), comm), _count(count), _data(static_cast<T*>(getBaseAddress())) {}
    /// Over all ranks of this host.
    explicit ShmemWindow(std::size_t count)
        : ShmemWindowBase(count, sizeof(T)), _count(count), _data(static_cast<T*>(getBaseAddress())) {}
    /// As many elements as all ranks say together. Each rank's part lies in memory near to that rank.
    ShmemWindow(OwnCount own, Communicator& comm)
        : ShmemWindowBase(gatherShares(own.count, comm), sizeof(T), comm), _count(getShares().back()),
          _data(static_cast<T*>(getBaseAddress())) {}

    using ShmemWindowBase::fence;
    using ShmemWindowBase::getWindowSize;

    std::size_t size() const { return _count; }
    T* data() { return _data; }
    const T* data() const { return _data; }
    T& operator[](std::size_t index) { return _data[index]; }
    const T& operator[](std::size_t index) const { return _data[index]; }

    /// All elements.
    std::span<T> span() { return {_data, _count}; }
    std::span<const T> span() const { return {_data, _count}; }
    /// The elements of a rank of the communicator: those whose memory is near to it.
    std::span<T> share(unsigned rank) {
        const std::size_t first = getShares().at(rank);
        return {_data + first, getShares().at(rank + 1) - first};
    }
    std::span<T> ownShare() { return share(getRank()); }

    /// Raises an element that other ranks wait for. What this rank wrote into shared memory before, they read
    /// afterwards. Local.
    static void raiseCounter(T& counter, T value) requires std::same_as<T, std::uint64_t> {
        std::atomic_ref(counter).store(value, std::memory_order_release);
    }
    /// Waits until the rank `owner` has raised the element to `value` at least. Local, main thread.
    ///
    /// After a short look around the rank sleeps between its looks; its messages move on meanwhile. It counts
    /// as a rank that waits in an operation of the message layer: when the owner has left the command by an
    /// error, the watch over the job ends the wait with the job.
    /// @throw InternalError where a message would be refused as well, for example in a field loop
    void awaitCounter(T& counter, T value, unsigned owner) const requires std::same_as<T, std::uint64_t> {
        await(counter, value, owner);
    }

private:
    std::size_t _count;
    T* _data;
};
