#pragma once

#include "machine/MachineExport.h"

#include <cstddef>
#include <cstdint>
#include <vector>

class Communicator;

/// A block of memory that the ranks of one host share, each at an address of its own. ShmemWindow is the form
/// with a type.
///
/// The first rank of the communicator supplies all the memory. Each rank has a share of the elements; its
/// pages get their memory when the window is made, on the NUMA node of that rank. So a host without room for
/// them is an error at once on all ranks. Otherwise a later access would end a process by a signal.
///
/// All ranks of the communicator make the window together, call fence() together, and destroy it together,
/// before the communicator. Main thread. Pointers into the window end with it.
class ORVEX_MACHINE_EXPORT ShmemWindowBase {
public:
    /// Collective. @throw NonRecoverableError of the MPI library, as any error it gives; nothing while
    /// another exception passes
    virtual ~ShmemWindowBase() noexcept(false);
    ShmemWindowBase(const ShmemWindowBase&) = delete;
    ShmemWindowBase& operator=(const ShmemWindowBase&) = delete;

protected:
    /// The borders of the ranks' shares: rank r has the elements from entry r to entry r + 1.
    using Shares = std::vector<std::size_t>;

    /// Over all ranks of this host. @throw InternalError without shared memory in the driver, and in a serial
    /// process; as below
    ShmemWindowBase(std::size_t count, unsigned elementSize);
    /// Over `comm`, whose ranks share memory: nobody tests that. Each rank's share has the same size.
    /// @param count        elements; may be 0
    /// @param elementSize  [bytes]
    /// @throw SystemError on all ranks when the host has no room for the window
    ShmemWindowBase(std::size_t count, unsigned elementSize, Communicator& comm);
    /// The same with shares of any size, which all ranks know; the last border is the number of elements.
    ShmemWindowBase(const Shares& shares, unsigned elementSize, Communicator& comm);

    /// Each rank's share as near to the others' as can be. Local.
    static Shares divideEvenly(std::size_t count, unsigned ranks);
    /// Each rank's share as it says itself. Collective over `comm`.
    static Shares gatherShares(std::size_t own, Communicator& comm);
    const Shares& getShares() const { return _shares; }
    unsigned getRank() const { return _rank; }

    void* getBaseAddress() const { return _baseAddress; }
    /// [bytes], cut to 32 bits.
    unsigned getWindowSize() const { return static_cast<unsigned>(_winSize); }
    /// Orders accesses: what any rank wrote before, every rank reads afterwards. Collective; not through the
    /// gate of Communicator's operations. @throw NonRecoverableError of the MPI library
    void fence();
    /// Waits until `counter`, an element that the rank `owner` raises, has come to `value`. Local; through
    /// the gate of Communicator's operations. @throw InternalError when the gate refuses it
    void await(std::uint64_t& counter, std::uint64_t value, unsigned owner) const;

private:
    void commonConstructor(Communicator& comm);
    void assertRoom(Communicator& comm) const;
    void reserve(Communicator& comm);
    [[noreturn]] void raiseNoRoom(unsigned long long available) const;

    int _win = 0; ///< the wrapper's handle; 0 until it is made
    std::size_t _winSize = 0;
    unsigned _dispUnit = 0;
    void* _baseAddress = nullptr;
    Shares _shares;
    unsigned _rank = 0;
    std::uint64_t _label = 0; ///< of the communicator, for the record of operations
};
