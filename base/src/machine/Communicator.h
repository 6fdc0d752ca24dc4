#pragma once

#include "kernel/Raise.h"
#include "machine/MachineExport.h"
#include "machine/MessageBuffers.h"
#include "machine/MpiCore.h"
#include "machine/NativeHandle.h"
#include "machine/PersistentRequestStack.h"
#include "machine/PrimitiveArray.h"
#include "machine/ReductionThunk.h"
#include "machine/RequestStack.h"
#include "machine/StructDatatype.h"

#include <cstddef>
#include <memory>
#include <set>
#include <string>
#include <vector>

class CollectiveHistory;
class ExitStatus;
class Properties;

/// The type in which the length of a container travels between two ranks.
using mssg_count_t = unsigned int;

/// A set of ranks that talk to each other: the typed face of one MPI communicator.
///
/// A halo exchange of a field that is split along one direction, with one layer of cells from each neighbour:
///
///     Communicator& comm = Machine::globalCommunicator();
///     const unsigned me = comm.myRank();
///     std::vector<double> left(n), right(n), fromLeft(n), fromRight(n); // declared before the stack
///     Communicator::RequestStack requests;
///     if (me > 0) {
///         comm.iRecv(fromLeft, me - 1, requests);
///         comm.iSend(left, me - 1, requests);
///     }
///     if (me + 1 < comm.size()) {
///         comm.iRecv(fromRight, me + 1, requests);
///         comm.iSend(right, me + 1, requests);
///     }
///     comm.wait(requests); // before it: the work on cells that need no halo
///
/// These values travel, in all typed operations:
/// - a value of fixed size: a primitive type (bool, the character and integer types, float, double,
///   long double, std::complex), an enumeration, a LocatedValue, a std::array of such, a struct with
///   StructMembers;
/// - a pointer with a count of such values;
/// - a container of such values that can be resized, std::vector or std::string: its length travels
///   first, and the receiver's takes that length;
/// - a std::span: memory whose length all sides know already; only its content travels.
/// Everything else, std::vector<bool> included, is refused by the compiler. Lengths, counts and displacements
/// are in values of any kind, not in bytes.
///
/// All operations belong to the main thread, and those named collective must be called by all ranks of this
/// communicator in the same order. They are refused, with an InternalError, while messaging is locked (see
/// machine/GroundLocks.h) or from another thread. A failure of the message layer is a NonRecoverableError.
/// Both are raised on this rank only, and leave the communicator usable.
///
/// Broadcasts, gathers and scatters cut a message that is larger than one call may carry; all others refuse
/// it. Objects are held by std::unique_ptr, and die before MpiCore::finalize(), on all their ranks together.
class ORVEX_MACHINE_EXPORT Communicator : private MessageBuffers {
public:
    using RequestStack = MpiCore::RequestStack;
    using PersistentRequestStack = MpiCore::PersistentRequestStack;

    /// A number that a message carries, so that a receiver can choose among messages.
    class Tag {
    public:
        /// @param tag  below upper_bound(), or MpiCore::ANY_TAG where messages are received or probed
        /// @throw InternalError for another value
        constexpr Tag(unsigned tag) : _tag(static_cast<int>(tag)) {
            if (!(tag < upper_bound() || tag == MpiCore::ANY_TAG)) [[unlikely]]
                raiseOutOfBounds();
        }
        /// The first number that is no tag: tags run from 0 to 32766. noSpinSynchronise() uses 1022.
        static constexpr unsigned upper_bound() { return 0x7FFF; }
        /// As the wrapper takes it.
        constexpr int value() const { return _tag; }

    private:
        friend class Communicator;
        struct Unchecked {};
        constexpr Tag(Unchecked, int tag) : _tag(tag) {}
        [[noreturn]] ORVEX_MACHINE_EXPORT static void raiseOutOfBounds();

        int _tag;
    };
    /// The tag of a message that names none; no other can have it.
    static const Tag _defaultTag;

    // ---- Ranks. Local.

    /// Number of ranks.
    unsigned size() const { return _size; }
    /// This process's rank here, from 0 to size() - 1.
    unsigned myRank() const { return _myRank; }
    static constexpr unsigned _master = 0;
    static constexpr unsigned masterRank() { return _master; }

    // ---- Blocking messages from rank to rank. A rank can't send to itself.

    /// Sends a value, a container or a span to `dest`; returns when `value` may be changed again.
    template <PrimitiveArray::Object V>
    void send(const V& value, unsigned dest, Tag tag = _defaultTag) {
        sendValue<false>(value, dest, tag);
    }
    /// Sends `count` values in one message.
    template <class T>
    void send(const T* data, std::size_t count, unsigned dest, Tag tag = _defaultTag) {
        _send(viewOf<int>(data, count), dest, tag);
    }

    /// Like send(), but returns only once the receiver has begun to receive.
    template <PrimitiveArray::Object V>
    void syncSend(const V& value, unsigned dest, Tag tag = _defaultTag) {
        sendValue<true>(value, dest, tag);
    }
    /// The same for `count` values in one message.
    template <class T>
    void syncSend(const T* data, std::size_t count, unsigned dest, Tag tag = _defaultTag) {
        _syncSend(viewOf<int>(data, count), dest, tag);
    }

    /// Receives what `source` sent by send() or syncSend() with the same kind of value.
    template <PrimitiveArray::Object V>
    void recv(V&& value, unsigned source, Tag tag = _defaultTag);
    /// Receives up to `count` values in one message.
    template <class T>
    void recv(T* data, std::size_t count, unsigned source, Tag tag = _defaultTag) {
        _recv(viewOf<int>(data, count), source, tag);
    }

    /// Receives from the rank whose message comes first, and tells which rank that was.
    template <PrimitiveArray::Object V>
    void recvFromAny(V&& value, unsigned& source, Tag tag = _defaultTag);
    /// The same for up to `count` values in one message.
    template <class T>
    void recvFromAny(T* data, std::size_t count, unsigned& source, Tag tag = _defaultTag) {
        _recvFromAny(viewOf<int>(data, count), source, tag);
    }

    /// Sends to `dest` and receives from `source` at the same time, with tag 0; both sides call it. A
    /// received container takes the length of what arrives. `outgoing` and `incoming` mustn't share memory.
    template <PrimitiveArray::Object S, PrimitiveArray::Object R>
    void sendrecv(const S& outgoing, unsigned dest, R&& incoming, unsigned source);
    /// The same for values in one message each way; up to `recvCount` of them arrive.
    template <class T>
    void sendrecv(const T* sendData, std::size_t sendCount, unsigned dest, T* recvData, std::size_t recvCount,
                  unsigned source) {
        _sendrecv(viewOf<int>(sendData, sendCount), dest, viewOf<int>(recvData, recvCount), source);
    }

    // ---- Non-blocking messages, completed by wait() or test() of their stack.
    //
    // `value` must stay alive, and as it is, until the stack completed. A container travels with the length
    // that it has on this rank: no length is sent, and the receiver's isn't resized. A stack that dies early,
    // for example by an exception, takes its receives back, but no sends.

    /// Begins a send to `dest`. The memory of `value` must outlive the message: declare it before the stack,
    /// and neither change, resize nor free it before the stack completed, also not after an exception.
    template <PrimitiveArray::Object V>
    void iSend(V&& value, unsigned dest, RequestStack& requests, Tag tag = _defaultTag) {
        assertOutlivesRequest<V>();
        _iSend(constContentOf<int>(value), dest, requests, tag);
    }
    template <class T>
    void iSend(const T* data, std::size_t count, unsigned dest, RequestStack& requests,
               Tag tag = _defaultTag) {
        _iSend(viewOf<int>(data, count), dest, requests, tag);
    }

    /// Like iSend(), but complete only once the receiver has begun to receive.
    template <PrimitiveArray::Object V>
    void iSyncSend(V&& value, unsigned dest, RequestStack& requests, Tag tag = _defaultTag) {
        assertOutlivesRequest<V>();
        _iSyncSend(constContentOf<int>(value), dest, requests, tag);
    }
    template <class T>
    void iSyncSend(const T* data, std::size_t count, unsigned dest, RequestStack& requests,
                   Tag tag = _defaultTag) {
        _iSyncSend(viewOf<int>(data, count), dest, requests, tag);
    }

    /// Begins a receive of what `source` sends as memory of the same kind.
    template <PrimitiveArray::Object V>
    void iRecv(V&& value, unsigned source, RequestStack& requests, Tag tag = _defaultTag) {
        assertOutlivesRequest<V>();
        _iRecv(targetOf<int>(value), source, requests, tag);
    }
    template <class T>
    void iRecv(T* data, std::size_t count, unsigned source, RequestStack& requests, Tag tag = _defaultTag) {
        _iRecv(viewOf<int>(data, count), source, requests, tag);
    }

    /// Begins a receive from the rank whose message comes first; wait() with sources tells which that was.
    template <PrimitiveArray::Object V>
    void iRecvFromAny(V&& value, RequestStack& requests, Tag tag = _defaultTag) {
        assertOutlivesRequest<V>();
        _iRecvFromAny(targetOf<int>(value), requests, tag);
    }
    template <class T>
    void iRecvFromAny(T* data, std::size_t count, RequestStack& requests, Tag tag = _defaultTag) {
        _iRecvFromAny(viewOf<int>(data, count), requests, tag);
    }

    /// Completes all requests of the stack.
    void wait(RequestStack& requests);
    /// @param sources  the source of each message, in the order of the requests
    void wait(RequestStack& requests, std::vector<unsigned>& sources);
    /// Whether all requests of the stack are complete; if so it is empty now.
    bool test(RequestStack& requests);
    /// Lets go of requests that nobody will wait for.
    void freeRequest(RequestStack& requests);

    /// Prepares a receive from `source` that start() begins.
    template <PrimitiveArray::Object V>
    void recvInit(V&& value, unsigned source, PersistentRequestStack& requests, Tag tag = _defaultTag) {
        assertOutlivesRequest<V>();
        _recvInit(targetOf<int>(value), source, requests, tag);
    }
    template <class T>
    void recvInit(T* data, std::size_t count, unsigned source, PersistentRequestStack& requests,
                  Tag tag = _defaultTag) {
        _recvInit(viewOf<int>(data, count), source, requests, tag);
    }
    /// Begins all receives that recvInit() prepared.
    void start(PersistentRequestStack& requests);

    // ---- Looks at messages that nobody has received yet.

    /// Waits for a message and tells about it without receiving it.
    /// @param source  a rank or MpiCore::ANY_SOURCE; afterwards the sender
    /// @param tag     a tag or MpiCore::ANY_TAG; afterwards the message's: 32767 is that of a message that
    ///                named none, and no Tag can be made of it. Receive it without naming one either
    /// @param count   values of T in the message
    /// @throw InternalError when the message isn't a whole number of them; it can still be received
    template <class T>
    void probe(unsigned& source, unsigned& tag, unsigned& count);
    /// The same without waiting. @return false, and `count` 0, when no such message stands
    template <class T>
    bool iProbe(unsigned& source, unsigned& tag, unsigned& count);

    // ---- Collectives: one to all.

    /// Afterwards every rank's `value` equals the root's.
    template <PrimitiveArray::Object V>
    void broadcast(V&& value, unsigned root);
    /// `count` values, the same number on all ranks.
    template <class T>
    void broadcast(T* data, std::size_t count, unsigned root) {
        _broadcast(viewOf<unsigned>(data, count), root);
    }
    void broadcast(std::vector<std::string>& values, unsigned root);
    void broadcast(Properties& value, unsigned root);

    /// Rank i gets `send[i]` of the root. @param send  on the root: one value for each rank
    template <class T>
    void scatter(const std::vector<T>& send, T& value, unsigned root);
    /// Rank i gets block i of the root's `send`. `recv` has the length of one block, the same on all ranks.
    template <class T>
    void scatter(const std::vector<T>& send, std::vector<T>& recv, unsigned root);
    /// @param count  values for each rank
    template <class T>
    void scatter(const T* send, T* recv, std::size_t count, unsigned root);

    /// Blocks of any length: rank i gets `counts[i]` values of the root's `send`, which holds the blocks in
    /// rank order. `send` and `counts` matter on the root only.
    template <class S, class R>
    void scatterVector(const S& send, const std::vector<unsigned>& counts, R& recv, unsigned root);
    /// @param displacements  on the root: where in `send` each rank's values begin; null when they lie one
    ///                       after the other
    /// @param recvCount      values for this rank, as the root's `sendCounts` tells them
    template <class T>
    void scatterVector(const T* send, const unsigned* sendCounts, const unsigned* displacements, T* recv,
                       std::size_t recvCount, unsigned root);

    // ---- Collectives: all to one, or to all.

    /// `all[i]` on the root is the value of rank i; other ranks' `all` is left alone.
    template <class T>
    void gather(const T& value, std::vector<T>& all, unsigned root);
    /// `send` has the same length on all ranks; `recv` on the root holds them in rank order.
    template <class T>
    void gather(const std::vector<T>& send, std::vector<T>& recv, unsigned root);
    /// @param recv  on the root: room for `count` values of each rank
    template <class T>
    void gather(const T* send, std::size_t count, T* recv, unsigned root);
    void gather(const std::string& value, std::vector<std::string>& all, unsigned root);
    /// On the master `all[i]` is the tree of rank i; elsewhere `all` ends empty.
    void gather(const Properties& value, std::vector<Properties>& all);

    /// Like gather(), with the result on every rank.
    template <class T>
    void allGather(const T& value, std::vector<T>& all);
    template <class T>
    void allGather(const std::vector<T>& send, std::vector<T>& recv);
    template <class T>
    void allGather(const T* send, std::size_t count, T* recv) {
        _allGather(viewOf<unsigned>(send, count), viewOf<unsigned>(recv, _size * count));
    }
    void allGather(const std::string& value, std::vector<std::string>& all);
    /// `out` gains the union of all ranks' sets.
    void allGather(const std::set<std::string>& in, std::set<std::string>& out);

    /// Contributions of any length: `recv` on the root is their concatenation in rank order, and `counts[i]`
    /// the length of rank i's. Other ranks' `recv` and `counts` are left alone.
    template <class S, class R>
    void gatherVector(const S& send, R& recv, std::vector<unsigned>& counts, unsigned root);
    /// @param recvCounts     on the root: values of each rank
    /// @param displacements  on the root: where in `recv` each rank's values begin; null when they lie one
    ///                       after the other
    template <class T>
    void gatherVector(const T* send, std::size_t sendCount, T* recv, const unsigned* recvCounts,
                      const unsigned* displacements, unsigned root);
    /// The same with the result on every rank.
    template <class S, class R>
    void allGatherVector(const S& send, R& recv, std::vector<unsigned>& counts);
    template <class T>
    void allGatherVector(const T* send, std::size_t sendCount, T* recv, const unsigned* recvCounts,
                         const unsigned* displacements);

    // ---- Collectives: all to all.

    /// Block i of `send` goes to rank i, block i of `recv` comes from it. All blocks of all ranks have one
    /// length.
    template <class T>
    void allToAll(const std::vector<T>& send, std::vector<T>& recv);
    /// @param count  values in one block
    template <class T>
    void allToAll(const T* send, T* recv, std::size_t count) {
        _allToAll(viewOf<int>(send, _size * count), viewOf<int>(recv, _size * count));
    }
    /// Blocks of any length, in rank order: `sendCounts[i]` values go to rank i, and `recvCounts[i]` come
    /// from it.
    template <class S, class R>
    void allToAllVector(const S& send, const std::vector<unsigned>& sendCounts, R& recv,
                        std::vector<unsigned>& recvCounts);
    /// Null displacements: blocks one after the other.
    template <class T>
    void allToAllVector(const T* send, const unsigned* sendCounts, const unsigned* sendDisplacements, T* recv,
                        const unsigned* recvCounts, const unsigned* recvDisplacements);

    // ---- Reductions. Collective. A container or count has the same length on all ranks.
    //
    // A function that combines is a plain function or a lambda without captures,
    // `T combine(const T&, const T&)` or `void combine(const T& from, T& into)`. It may be called for the
    // ranks in any order, unless it is given as InRankOrder(combine). It must be associative and not throw.

    /// The operation of a reduction on the values of all ranks, element by element.
    enum Operation : int {
        MAX = OXM_MPI_MAX,
        MIN = OXM_MPI_MIN,
        SUM = OXM_MPI_SUM,
        PRODUCT = OXM_MPI_PROD,
        BITWISE_AND = OXM_MPI_BAND,
        BITWISE_OR = OXM_MPI_BOR,
        LOGICAL_AND = OXM_MPI_LAND,
        LOGICAL_OR = OXM_MPI_LOR,
        LOGICAL_XOR = OXM_MPI_LXOR,
        BITWISE_XOR = OXM_MPI_BXOR,
        MAX_LOCATION = OXM_MPI_MAXLOC, ///< of LocatedValue
        MIN_LOCATION = OXM_MPI_MINLOC  ///< of LocatedValue
    };
    /// Marks the function of a reduction as one that doesn't commute, for example a product of matrices: its
    /// first argument is then always the combination of lower ranks than the second one is.
    template <class F>
    struct InRankOrder {
        explicit InRankOrder(F function) : combine(function) {}
        F combine;
    };

    /// The root's `value` becomes the combination of all ranks' values; the others' stay.
    template <PrimitiveArray::Object V>
    void reduce(V&& value, Operation operation, unsigned root) {
        _reduce(targetOf<int>(value), operation, root);
    }
    template <class T>
    void reduce(T* data, std::size_t count, Operation operation, unsigned root) {
        _reduce(viewOf<int>(data, count), operation, root);
    }
    template <PrimitiveArray::Object V, class F>
    void reduce(V&& value, F combine, unsigned root);
    template <PrimitiveArray::Object V, class F>
    void reduce(V&& value, InRankOrder<F> ordered, unsigned root);

    /// Every rank's `value` becomes the combination of all ranks' values.
    template <PrimitiveArray::Object V>
    void allReduce(V&& value, Operation operation) {
        _allReduce(targetOf<int>(value), operation);
    }
    template <class T>
    void allReduce(T* data, std::size_t count, Operation operation) {
        _allReduce(viewOf<int>(data, count), operation);
    }
    template <PrimitiveArray::Object V, class F>
    void allReduce(V&& value, F combine);
    template <PrimitiveArray::Object V, class F>
    void allReduce(V&& value, InRankOrder<F> ordered);

    /// Rank i's `value` becomes the combination of the values of ranks 0 to i.
    template <PrimitiveArray::Object V>
    void scan(V&& value, Operation operation) {
        _scan(targetOf<int>(value), operation);
    }
    template <class T>
    void scan(T* data, std::size_t count, Operation operation) {
        _scan(viewOf<int>(data, count), operation);
    }
    template <PrimitiveArray::Object V, class F>
    void scan(V&& value, F combine);
    template <PrimitiveArray::Object V, class F>
    void scan(V&& value, InRankOrder<F> ordered);

    /// Combines the ranks' `send` and gives block i to rank i. `recv` has the length of one block, the same
    /// on all ranks, and `send` that of all blocks.
    template <class T>
    void reduceScatter(const std::vector<T>& send, std::vector<T>& recv, Operation operation) {
        _reduceScatter(contentOf<int>(send), contentOf<int>(recv), operation);
    }
    /// @param recvCount  values in one block
    template <class T>
    void reduceScatter(const T* send, T* recv, std::size_t recvCount, Operation operation) {
        _reduceScatter(viewOf<int>(send, _size * recvCount), viewOf<int>(recv, recvCount), operation);
    }

    // ---- Synchronisation. Collective.

    /// Returns when all ranks have called it.
    void synchronise();
    /// The sleeps of a rank that waits: always the same, or an eighth of the time that it has waited.
    enum class Sleeps { EVEN, GROWING };
    /// The same for ranks that may wait for hours: a rank that has waited for `spinTime` [s] sleeps between
    /// its looks. Uses tag 1022: no message with this tag may be on its way to this communicator.
    void noSpinSynchronise(double spinTime, Sleeps sleeps = Sleeps::EVEN);
    /// After the call every rank has the text of rank 0, which may come late: the others sleep meanwhile, an
    /// eighth of the time that they have waited each time, and leave their processors to it.
    void noSpinBroadcast(std::string& text);

    // ---- Time spent in messages. Local.

    /// Switches the time keeping of this communicator, which makes each operation slower.
    void enableCommunicationTimer(bool on);
    bool isCommunicationTimerEnabled() const { return _communicationTimerEnabled; }
    /// [s] spent in operations of this communicator while its timer was on.
    double getCommunicationTime() const { return _communicationTime; }

    // ---- Communicators, and what they are.

    /// All processes of the job. Local.
    Communicator();
    /// Frees the communicator. Collective, unless it is the one of all processes.
    virtual ~Communicator();
    Communicator(const Communicator&) = delete;
    Communicator& operator=(const Communicator&) = delete;

    /// A communicator of some ranks of this one, in the order given. Collective; all pass the same list.
    /// @return null on a rank that isn't in `ranks`
    std::unique_ptr<Communicator> createCommunicator(const std::vector<unsigned>& ranks) const;
    /// One communicator for each set of ranks that share memory. Collective; through the gate, as
    /// createCommunicator() is.
    std::unique_ptr<Communicator> createSharedMemCommunicators() const;

    /// Whether both stand for the same communicator of the message layer.
    bool operator==(const Communicator& other) const { return _handle == other._handle; }
    /// The processor name: the host, for most MPI libraries.
    const std::string& myName() const { return _myName; }
    /// The wrapper's, still owned by this object.
    const int& handle() const { return _handle; }
    /// The communicator of the MPI library beneath, for code in a module that is built with that library, for
    /// example PETSc, hypre or parallel HDF5. Valid while this communicator lives. Local.
    NativeHandle nativeHandle() const;

    // ---- Rarely needed: the end of a job, size limits, tests.

    /// Takes the whole job down with `status` as exit value. Local.
    void abort(const ExitStatus& status);

    /// The largest message that one call carries [bytes]; larger ones are cut. All ranks of a communicator
    /// must have the same limit, not below the size of the largest element. Says on the standard output what
    /// changed.
    void setMaxBufferSize(std::size_t bytes);
    /// [bytes]; the MPI driver's limit, until setMaxBufferSize().
    std::size_t getMaxBufferSize() const { return _maxBufferSize; }
    /// The smallest limit with which the messages of this layer itself pass [bytes]: a few numbers of each
    /// rank in one call.
    std::size_t getSmallestBufferSize() const { return 64 + std::size_t{16} * _size; }
    /// Whether `bytes` are more than that; exactly the limit fits.
    bool exceedsMaximumBufferSize(const std::size_t& bytes) const { return bytes > _maxBufferSize; }
    /// Whether `count` elements of `typeSize` bytes are too large for one call.
    bool exceedsSizeLimits(const std::size_t& count, unsigned typeSize) const {
        return count * typeSize > _maxBufferSize || count > MAX_COUNT;
    }
    using MessageBuffers::_oversizedMessageHint;
    using MessageBuffers::_oversizedMessageString;

    /// Sends a little to and fro, says so on the standard output, and checks what arrives. Collective.
    void testCommunicator();
    /// Measures each pair of ranks. Collective.
    /// @param results       on the master: [KiB/s] from rank s to rank d at s * size() + d
    /// @param messageBytes  of each message
    /// @param iterations    messages from each rank to each other; below 4 GiB of them in all
    void performanceTest(std::vector<double>& results, unsigned messageBytes, unsigned iterations);

    // ---- Below the typed operations: memory as the wrapper sees it.

    using MessageBuffers::BufferBase;
    using MessageBuffers::ConstBufferBase;

    /// An array of records that a function of the caller's reduces: the elements of a contiguous datatype,
    /// which lives as long as this object. The records are borrowed.
    class ORVEX_MACHINE_EXPORT CustomReductionBuffer {
    public:
        /// Makes the datatype, outside the gate. A failure of it comes out of the reduction.
        /// @throw InternalError for more records than one call takes
        template <class T>
        CustomReductionBuffer(T* records, std::size_t count)
            : CustomReductionBuffer(records, castCount<int>(count), sizeof(T), unitOf<T>()) {
            static_assert(PrimitiveArray::assertReceives<T>());
        }
        virtual ~CustomReductionBuffer();
        CustomReductionBuffer(const CustomReductionBuffer&) = delete;
        CustomReductionBuffer& operator=(const CustomReductionBuffer&) = delete;

        BufferBase<int> get() const { return _buffer; }

    private:
        struct Unit {
            int type;
            std::size_t size; ///< [bytes]
        };
        /// The elements of a record. A record with gaps goes as bytes: the message layer's own buffers end
        /// with the last byte of a datatype, and a function that copies whole records would reach beyond
        /// them.
        template <class T>
        static constexpr Unit unitOf() {
            using t = typename PrimitiveArray::Record<T>::t;
            if constexpr (PrimitiveArray::Primitive<t> && !PrimitiveArray::isLocatedValue<t>)
                return {PrimitiveArray::datatypeCode<t>, sizeof(t)};
            else
                return {OXM_MPI_BYTE, 1};
        }
        CustomReductionBuffer(void* records, int count, unsigned recordSize, const Unit& unit);
        static int allocateContiguous(std::size_t count, int baseType);

        int _contiguousType;
        BufferBase<int> _buffer;
    };
    /// Combines `*length` records of `in` into `inout`.
    using ReductionFunction = void (*)(void* in, void* inout, int* length, int* datatype);

private:
    friend class CollectiveHistory;
    friend class CommunicatorFrame;
    friend class CommunicatorTestAccess;

    /// In which order a reduction may take the ranks: its value tells the message layer whether it commutes.
    enum Order : int { RANK_ORDER = 0, ANY_ORDER = 1 };

    static constexpr std::size_t MAX_COUNT = 0x7FFFFFFF;
    static constexpr const char* SENT_COUNT = "s.size <= std::numeric_limits<mssg_count_t>::max()";
    static constexpr const char* RECEIVED_COUNT = "r.size <= std::numeric_limits<mssg_count_t>::max()";

    /// Takes ownership of `handle`.
    explicit Communicator(const int& handle);
    void readIdentity();
    void release() noexcept;

    /// [ms] between two looks of a rank that sleeps in noSpinSynchronise() of a job of `ranks`.
    static unsigned getSleep(unsigned ranks);
    double getSendRecvSpeed(unsigned partner, bool sender, unsigned messageBytes, unsigned iterations);

    // ---- Buffer-level operations, each named as its typed form with a leading underscore: argument checks,
    // frame, wrapper call.

    void _send(ConstBufferBase<int> buf, unsigned dest, Tag tag) {
        MpiCore::handleError(sendFrame(buf.data, buf.size, buf.type, dest, tag.value(), this, buf.typeSize));
    }
    void _syncSend(ConstBufferBase<int> buf, unsigned dest, Tag tag) {
        MpiCore::handleError(
            syncSendFrame(buf.data, buf.size, buf.type, dest, tag.value(), this, buf.typeSize));
    }
    void _recv(BufferBase<int> buf, unsigned source, Tag tag) {
        recvFrame(buf.data, buf.size, buf.type, source, tag.value(), this, buf.typeSize);
    }
    void _recvFromAny(BufferBase<int> buf, unsigned& source, Tag tag);
    void _sendrecv(ConstBufferBase<int> sendbuf, unsigned dest, BufferBase<int> recvbuf, unsigned source);
    void _iSend(ConstBufferBase<int> buf, unsigned dest, RequestStack& requests, Tag tag);
    void _iSyncSend(ConstBufferBase<int> buf, unsigned dest, RequestStack& requests, Tag tag);
    void _iRecv(BufferBase<int> buf, unsigned source, RequestStack& requests, Tag tag);
    void _iRecvFromAny(BufferBase<int> buf, RequestStack& requests, Tag tag);
    void _recvInit(BufferBase<int> buf, unsigned source, PersistentRequestStack& requests, Tag tag);
    void _probe(unsigned& source, unsigned& tag, const int& type, int& elements);
    bool _iProbe(unsigned& source, unsigned& tag, const int& type, int& elements);
    static unsigned toValues(int elements, unsigned stride);

    void _broadcast(BufferBase<unsigned> buf, unsigned root);
    /// With all that may be between: cutting, the gate's refusals, the timer, the statistics.
    void broadcastStepwise(BufferBase<unsigned> buf, unsigned root);
    void broadcastWhole(BufferBase<unsigned> buf, unsigned root);
    void _scatter(ConstBufferBase<unsigned> sendbuf, BufferBase<unsigned> recvbuf, unsigned root);
    void _scatterVector(ConstBufferBase<int> sendbuf, const unsigned* sendCounts,
                        const unsigned* displacements, BufferBase<int> recvbuf, unsigned root);
    void _scatterVector(ConstBufferBase<unsigned> sendbuf, const unsigned* sendCounts,
                        const unsigned* displacements, BufferBase<unsigned> recvbuf, unsigned root);
    void _gather(ConstBufferBase<unsigned> sendbuf, BufferBase<unsigned> recvbuf, unsigned root);
    void _gatherVector(ConstBufferBase<int> sendbuf, BufferBase<int> recvbuf, const unsigned* recvCounts,
                       const unsigned* displacements, unsigned root);
    void _gatherVector(ConstBufferBase<unsigned> sendbuf, BufferBase<unsigned> recvbuf,
                       const unsigned* recvCounts, const unsigned* displacements, unsigned root);
    void _allGather(ConstBufferBase<unsigned> sendbuf, BufferBase<unsigned> recvbuf);
    void _allGatherVector(ConstBufferBase<unsigned> sendbuf, BufferBase<unsigned> recvbuf,
                          const unsigned* recvCounts, const unsigned* displacements);
    void _allToAll(ConstBufferBase<int> sendbuf, BufferBase<int> recvbuf);
    void _allToAllVector(ConstBufferBase<int> sendbuf, const unsigned* sendCounts,
                         const unsigned* sendDisplacements, BufferBase<int> recvbuf,
                         const unsigned* recvCounts, const unsigned* recvDisplacements);
    void _reduce(BufferBase<int> buf, int op, unsigned root);
    void _allReduce(BufferBase<int> buf, int op) {
        if (buf.size > 0)
            MpiCore::handleError(allReduceFrame(buf.data, buf.size, buf.type, op, this, buf.typeSize));
    }
    void _scan(BufferBase<int> buf, int op);
    void _reduce(const CustomReductionBuffer& buffer, ReductionFunction function, unsigned root,
                 Order order = ANY_ORDER);
    void _allReduce(const CustomReductionBuffer& buffer, ReductionFunction function, Order order = ANY_ORDER);
    void _scan(const CustomReductionBuffer& buffer, ReductionFunction function, Order order = ANY_ORDER);
    void _reduceScatter(ConstBufferBase<int> sendbuf, BufferBase<int> recvbuf, int op);

    // ---- The hot ones, in the wrapper's order of arguments with the communicator in its handle's place:
    // with the gate open they end in a jump to the wrapper.

    static int sendFrame(const void* data, int size, int type, unsigned dest, int tag, Communicator* self,
                         unsigned typeSize);
    static int syncSendFrame(const void* data, int size, int type, unsigned dest, int tag, Communicator* self,
                             unsigned typeSize);
    static void recvFrame(void* data, int size, int type, unsigned source, int tag, Communicator* self,
                          unsigned typeSize);
    static int allReduceFrame(void* data, int size, int type, int op, Communicator* self, unsigned typeSize);

    // ---- Cutting of messages that are too large for one call.

    void cutScatter(ConstBufferBase<unsigned> sendbuf, BufferBase<unsigned> recvbuf, unsigned root);
    void cutScatterVector(ConstBufferBase<unsigned> sendbuf, const unsigned* sendCounts,
                          const unsigned* displacements, BufferBase<unsigned> recvbuf, unsigned root,
                          std::size_t total);
    void cutGather(ConstBufferBase<unsigned> sendbuf, BufferBase<unsigned> recvbuf, unsigned root);
    void cutGatherVector(ConstBufferBase<unsigned> sendbuf, BufferBase<unsigned> recvbuf,
                         const unsigned* recvCounts, const unsigned* displacements, unsigned root,
                         std::size_t total);
    void cutAllGather(ConstBufferBase<unsigned> sendbuf, BufferBase<unsigned> recvbuf);
    void cutAllGatherVector(ConstBufferBase<unsigned> sendbuf, BufferBase<unsigned> recvbuf,
                            const unsigned* recvCounts, const unsigned* displacements);
    /// Whether some rank's block can be cut.
    bool isDivisible(const unsigned* counts) const;
    /// The total by which all ranks cut, as the root tells it: the elements of `spread`, or 0 for too large a
    /// message whose blocks can't be cut. Collective.
    std::size_t shareTotal(const ConstBufferBase<unsigned>& spread, const unsigned* counts, unsigned root);

    // ---- Counts and displacements of all ranks: size() entries each.

    /// The same entries as the wrapper takes them. @throw InternalError for one that it can't take
    const int* toWrapper(const unsigned* values) const;
    void getDefaultDisplacements(const unsigned* counts, unsigned* displacements) const;
    void addStrideLength(const unsigned* in, unsigned* out, unsigned stride) const;
    void subtractStrideLength(const unsigned* in, unsigned* out, unsigned stride) const;

    /// Counts and displacements of values turned into those of elements; null counts: this rank has none.
    class ORVEX_MACHINE_EXPORT ElementCounts {
    public:
        ElementCounts(const Communicator& communicator, const unsigned* valueCounts,
                      const unsigned* valueDisplacements, unsigned stride);
        ElementCounts(const ElementCounts&) = delete;
        ElementCounts& operator=(const ElementCounts&) = delete;

        const unsigned* counts;
        const unsigned* displacements;
        unsigned long long total = 0; ///< elements from the first to the last

    private:
        std::vector<unsigned> _counts;
        std::vector<unsigned> _displacements;
    };

    /// Gathers the lengths of the ranks' contributions, in elements, and fills `_displacements` where the
    /// result goes. @return the total there, else 0
    unsigned long long gatherCounts(unsigned long long count, std::vector<unsigned>& counts, unsigned root);
    unsigned long long allGatherCounts(unsigned long long count, std::vector<unsigned>& counts);

    static void checkContribution(unsigned long long count);
    unsigned long long placeBlocks(const std::vector<unsigned>& counts);

    // ---- Checks of sizes.

    void checkOversize(std::size_t size, unsigned typeSize) const {
        if (exceedsSizeLimits(size, typeSize)) [[unlikely]]
            raiseOversize(size, typeSize);
    }
    [[noreturn]] static void raiseOversize(std::size_t size, unsigned typeSize);
    static void checkMessageCount(unsigned long long size, const char* condition);
    /// That the blocks which this rank hands out are those that it has.
    void checkBlocks(bool here, std::size_t sendSize, std::size_t blockSize) const;
    void checkBlocks(bool here, std::size_t sendSize, std::size_t total, std::size_t countsSize) const;
    void checkEqualBlocks(std::size_t sendSize) const;
    /// Null instead of counts that don't tell of all ranks, which checkBlocks() then refuses.
    const unsigned* countsOfAll(const std::vector<unsigned>& counts) const {
        return counts.size() == _size ? counts.data() : nullptr;
    }
    /// Values in the blocks of all ranks. Every rank asks, so that all refuse too many of them and none
    /// waits.
    template <class T>
    std::size_t lengthOfAll(std::size_t blockLength) const {
        castCount<unsigned>(_size * blockLength * strideOf<T>);
        return _size * blockLength;
    }

    // ---- Shared by the typed operations.

    template <class V>
    static CustomReductionBuffer recordsOf(V& value);
    template <bool synchronous, class V>
    void sendValue(const V& value, unsigned dest, Tag tag);
    template <bool synchronous>
    void transmit(ConstBufferBase<int> buf, unsigned dest, Tag tag);

    int _handle;
    int _group;
    std::shared_ptr<CollectiveHistory> _history; ///< shared by all objects of all processes
    unsigned _size = 0;
    unsigned _myRank = 0;
    std::size_t _maxBufferSize = 0;
    double _communicationTime = 0.0;
    bool _communicationTimerEnabled = false;
    std::string _myName;
    /// Of the last vector gather; kept, so that the next needs no memory.
    std::vector<unsigned> _displacements;
};

// The longer bodies of the typed operations, in the order of their declarations.

// ---- Blocking messages from rank to rank.

template <PrimitiveArray::Object V>
inline void Communicator::recv(V&& value, unsigned source, Tag tag) {
    if constexpr (PrimitiveArray::Resizable<std::remove_reference_t<V>>) {
        PrimitiveArray::Array r(value);
        checkMessageCount(r.size, RECEIVED_COUNT);
        mssg_count_t count = 0;
        _recv(viewOf<int>(&count, 1), source, tag);
        r.resize(count);
        if (count != 0)
            _recv(targetOf<int>(value), source, tag);
    } else {
        _recv(targetOf<int>(value), source, tag);
    }
}

template <PrimitiveArray::Object V>
inline void Communicator::recvFromAny(V&& value, unsigned& source, Tag tag) {
    if constexpr (PrimitiveArray::Resizable<std::remove_reference_t<V>>) {
        PrimitiveArray::Array r(value);
        checkMessageCount(r.size, RECEIVED_COUNT);
        mssg_count_t count = 0;
        _recvFromAny(viewOf<int>(&count, 1), source, tag);
        r.resize(count);
        if (count != 0)
            _recv(targetOf<int>(value), source, tag);
    } else {
        _recvFromAny(targetOf<int>(value), source, tag);
    }
}

template <PrimitiveArray::Object S, PrimitiveArray::Object R>
inline void Communicator::sendrecv(const S& outgoing, unsigned dest, R&& incoming, unsigned source) {
    using Received = std::remove_reference_t<R>;
    static_assert(PrimitiveArray::TravelsWithLength<S> == PrimitiveArray::Resizable<Received>,
                  "sendrecv() needs a container on both sides or on none");
    if constexpr (PrimitiveArray::TravelsWithLength<S>)
        checkMessageCount(PrimitiveArray::Array(outgoing).size, SENT_COUNT);
    const ConstBufferBase<int> content = constContentOf<int>(outgoing); // refused before anything is sent
    if constexpr (PrimitiveArray::TravelsWithLength<S>) {
        const auto sent = static_cast<mssg_count_t>(content.size);
        mssg_count_t received = 0;
        _sendrecv(viewOf<int>(&sent, 1), dest, viewOf<int>(&received, 1), source);
        PrimitiveArray::Array(incoming).resize(received);
    }
    _sendrecv(content, dest, targetOf<int>(incoming), source);
}

template <bool synchronous, class V>
inline void Communicator::sendValue(const V& value, unsigned dest, Tag tag) {
    if constexpr (PrimitiveArray::TravelsWithLength<V>) {
        checkMessageCount(PrimitiveArray::Array(value).size, SENT_COUNT);
        const ConstBufferBase<int> content = constContentOf<int>(value); // refused before anything is sent
        const auto count = static_cast<mssg_count_t>(content.size);
        transmit<synchronous>(viewOf<int>(&count, 1), dest, tag);
        if (count != 0)
            transmit<synchronous>(content, dest, tag);
    } else {
        transmit<synchronous>(constContentOf<int>(value), dest, tag);
    }
}

template <bool synchronous>
inline void Communicator::transmit(ConstBufferBase<int> buf, unsigned dest, Tag tag) {
    if constexpr (synchronous)
        _syncSend(buf, dest, tag);
    else
        _send(buf, dest, tag);
}

// ---- Looks at messages that nobody has received yet.

template <class T>
inline void Communicator::probe(unsigned& source, unsigned& tag, unsigned& count) {
    static_assert(PrimitiveArray::assertFixedSize<T>());
    using Record = PrimitiveArray::Record<T>;
    int elements = 0;
    _probe(source, tag, PrimitiveArray::datatype<typename Record::t>(), elements);
    count = toValues(elements, Record::stride);
}

template <class T>
inline bool Communicator::iProbe(unsigned& source, unsigned& tag, unsigned& count) {
    static_assert(PrimitiveArray::assertFixedSize<T>());
    using Record = PrimitiveArray::Record<T>;
    int elements = 0;
    const bool stands = _iProbe(source, tag, PrimitiveArray::datatype<typename Record::t>(), elements);
    count = toValues(elements, Record::stride);
    return stands;
}

// ---- Collectives: one to all.

template <PrimitiveArray::Object V>
inline void Communicator::broadcast(V&& value, unsigned root) {
    if constexpr (PrimitiveArray::Resizable<std::remove_reference_t<V>>) {
        PrimitiveArray::Array array(value);
        unsigned long long count = array.size;
        _broadcast(viewOf<unsigned>(&count, 1), root);
        array.resize(count);
    }
    _broadcast(targetOf<unsigned>(value), root);
}

template <class T>
inline void Communicator::scatter(const std::vector<T>& send, T& value, unsigned root) {
    static_assert(PrimitiveArray::assertTravels<std::vector<T>>());
    checkBlocks(_myRank == root, send.size(), 1);
    scatter(send.data(), &value, 1, root);
}

template <class T>
inline void Communicator::scatter(const std::vector<T>& send, std::vector<T>& recv, unsigned root) {
    static_assert(PrimitiveArray::assertTravels<std::vector<T>>());
    checkBlocks(_myRank == root, send.size(), recv.size());
    scatter(send.data(), recv.data(), recv.size(), root);
}

template <class T>
inline void Communicator::scatter(const T* send, T* recv, std::size_t count, unsigned root) {
    const std::size_t total = lengthOfAll<T>(count);
    _scatter(viewOf<unsigned>(send, _myRank == root ? total : 0), viewOf<unsigned>(recv, count), root);
}

template <class S, class R>
inline void Communicator::scatterVector(const S& send, const std::vector<unsigned>& counts, R& recv,
                                        unsigned root) {
    static_assert(PrimitiveArray::assertBlocksTravel<S, R>());
    PrimitiveArray::Array r(recv);
    const bool here = _myRank == root;
    const ElementCounts blocks(*this, here ? countsOfAll(counts) : nullptr, nullptr, r.stride);
    checkBlocks(here, PrimitiveArray::Array(send).size, blocks.total, counts.size());
    unsigned count = 0;
    _scatter(viewOf<unsigned>(blocks.counts, here ? _size : 0), viewOf<unsigned>(&count, 1), root);
    r.resize(count);
    _scatterVector(here ? contentOf<unsigned>(send) : noneLike<unsigned>(send), blocks.counts,
                   blocks.displacements, contentOf<unsigned>(recv), root);
}

template <class T>
inline void Communicator::scatterVector(const T* send, const unsigned* sendCounts,
                                        const unsigned* displacements, T* recv, std::size_t recvCount,
                                        unsigned root) {
    const ElementCounts blocks(*this, _myRank == root ? sendCounts : nullptr, displacements, strideOf<T>);
    _scatterVector(viewOf<unsigned>(send, blocks.total / strideOf<T>), blocks.counts, blocks.displacements,
                   viewOf<unsigned>(recv, recvCount), root);
}

// ---- Collectives: all to one, or to all.

template <class T>
inline void Communicator::gather(const T& value, std::vector<T>& all, unsigned root) {
    static_assert(PrimitiveArray::assertTravels<std::vector<T>>());
    if (_myRank == root)
        all.resize(_size);
    gather(&value, 1, all.data(), root);
}

template <class T>
inline void Communicator::gather(const std::vector<T>& send, std::vector<T>& recv, unsigned root) {
    static_assert(PrimitiveArray::assertTravels<std::vector<T>>());
    const std::size_t total = lengthOfAll<T>(send.size());
    if (_myRank == root && recv.size() != total)
        recv.resize(total);
    gather(send.data(), send.size(), recv.data(), root);
}

template <class T>
inline void Communicator::gather(const T* send, std::size_t count, T* recv, unsigned root) {
    const std::size_t total = lengthOfAll<T>(count);
    _gather(viewOf<unsigned>(send, count), viewOf<unsigned>(recv, _myRank == root ? total : 0), root);
}

template <class T>
inline void Communicator::allGather(const T& value, std::vector<T>& all) {
    static_assert(PrimitiveArray::assertTravels<std::vector<T>>());
    all.resize(_size);
    _allGather(viewOf<unsigned>(&value, 1), viewOf<unsigned>(all.data(), _size));
}

template <class T>
inline void Communicator::allGather(const std::vector<T>& send, std::vector<T>& recv) {
    static_assert(PrimitiveArray::assertTravels<std::vector<T>>());
    recv.resize(lengthOfAll<T>(send.size()));
    allGather(send.data(), send.size(), recv.data());
}

template <class S, class R>
inline void Communicator::gatherVector(const S& send, R& recv, std::vector<unsigned>& counts, unsigned root) {
    static_assert(PrimitiveArray::assertBlocksTravel<S, R>());
    PrimitiveArray::Array s(send);
    PrimitiveArray::Array r(recv);
    const unsigned long long total = gatherCounts(s.size, counts, root);
    const bool here = _myRank == root;
    if (here)
        r.resize(total);
    _gatherVector(contentOf<unsigned>(send), here ? contentOf<unsigned>(recv) : noneLike<unsigned>(recv),
                  counts.data(), _displacements.data(), root);
    if (here)
        subtractStrideLength(counts.data(), counts.data(), r.stride);
}

template <class T>
inline void Communicator::gatherVector(const T* send, std::size_t sendCount, T* recv,
                                       const unsigned* recvCounts, const unsigned* displacements,
                                       unsigned root) {
    const bool here = _myRank == root;
    const ElementCounts blocks(*this, here ? recvCounts : nullptr, displacements, strideOf<T>);
    _gatherVector(viewOf<unsigned>(send, sendCount), viewOf<unsigned>(recv, blocks.total / strideOf<T>),
                  blocks.counts, blocks.displacements, root);
}

template <class S, class R>
inline void Communicator::allGatherVector(const S& send, R& recv, std::vector<unsigned>& counts) {
    static_assert(PrimitiveArray::assertBlocksTravel<S, R>());
    PrimitiveArray::Array s(send);
    PrimitiveArray::Array r(recv);
    r.resize(allGatherCounts(s.size, counts));
    _allGatherVector(contentOf<unsigned>(send), contentOf<unsigned>(recv), counts.data(),
                     _displacements.data());
    subtractStrideLength(counts.data(), counts.data(), r.stride);
}

template <class T>
inline void Communicator::allGatherVector(const T* send, std::size_t sendCount, T* recv,
                                          const unsigned* recvCounts, const unsigned* displacements) {
    const ElementCounts blocks(*this, recvCounts, displacements, strideOf<T>);
    _allGatherVector(viewOf<unsigned>(send, sendCount), viewOf<unsigned>(recv, blocks.total / strideOf<T>),
                     blocks.counts, blocks.displacements);
}

// ---- Collectives: all to all.

template <class T>
inline void Communicator::allToAll(const std::vector<T>& send, std::vector<T>& recv) {
    static_assert(PrimitiveArray::assertTravels<std::vector<T>>());
    checkEqualBlocks(send.size());
    recv.resize(send.size());
    _allToAll(contentOf<int>(send), contentOf<int>(recv));
}

template <class S, class R>
inline void Communicator::allToAllVector(const S& send, const std::vector<unsigned>& sendCounts, R& recv,
                                         std::vector<unsigned>& recvCounts) {
    static_assert(PrimitiveArray::assertBlocksTravel<S, R>());
    PrimitiveArray::Array r(recv);
    const ElementCounts out(*this, countsOfAll(sendCounts), nullptr, r.stride);
    checkBlocks(true, PrimitiveArray::Array(send).size, out.total, sendCounts.size());
    recvCounts.resize(_size);
    allToAll(sendCounts.data(), recvCounts.data(), 1);
    const ElementCounts in(*this, recvCounts.data(), nullptr, r.stride);
    castCount<int>(in.total); // refused before `recv` grows
    r.resize(in.total);
    _allToAllVector(contentOf<int>(send), out.counts, out.displacements, contentOf<int>(recv), in.counts,
                    in.displacements);
}

template <class T>
inline void Communicator::allToAllVector(const T* send, const unsigned* sendCounts,
                                         const unsigned* sendDisplacements, T* recv,
                                         const unsigned* recvCounts, const unsigned* recvDisplacements) {
    const ElementCounts out(*this, sendCounts, sendDisplacements, strideOf<T>);
    const ElementCounts in(*this, recvCounts, recvDisplacements, strideOf<T>);
    _allToAllVector(viewOf<int>(send, out.total / strideOf<T>), out.counts, out.displacements,
                    viewOf<int>(recv, in.total / strideOf<T>), in.counts, in.displacements);
}

// ---- Reductions by a function.

template <class V>
inline Communicator::CustomReductionBuffer Communicator::recordsOf(V& value) {
    if constexpr (PrimitiveArray::FixedSize<V>)
        return CustomReductionBuffer(&value, 1);
    else
        return CustomReductionBuffer(value.data(), value.size());
}

template <PrimitiveArray::Object V, class F>
inline void Communicator::reduce(V&& value, F combine, unsigned root) {
    static_assert(PrimitiveArray::assertReceives<V>());
    _reduce(recordsOf(value), ReductionThunk<PrimitiveArray::EntryOf<V>, F>::of(combine), root);
}

template <PrimitiveArray::Object V, class F>
inline void Communicator::reduce(V&& value, InRankOrder<F> ordered, unsigned root) {
    static_assert(PrimitiveArray::assertReceives<V>());
    _reduce(recordsOf(value), ReductionThunk<PrimitiveArray::EntryOf<V>, F>::of(ordered.combine), root,
            RANK_ORDER);
}

template <PrimitiveArray::Object V, class F>
inline void Communicator::allReduce(V&& value, F combine) {
    static_assert(PrimitiveArray::assertReceives<V>());
    _allReduce(recordsOf(value), ReductionThunk<PrimitiveArray::EntryOf<V>, F>::of(combine));
}

template <PrimitiveArray::Object V, class F>
inline void Communicator::allReduce(V&& value, InRankOrder<F> ordered) {
    static_assert(PrimitiveArray::assertReceives<V>());
    _allReduce(recordsOf(value), ReductionThunk<PrimitiveArray::EntryOf<V>, F>::of(ordered.combine),
               RANK_ORDER);
}

template <PrimitiveArray::Object V, class F>
inline void Communicator::scan(V&& value, F combine) {
    static_assert(PrimitiveArray::assertReceives<V>());
    _scan(recordsOf(value), ReductionThunk<PrimitiveArray::EntryOf<V>, F>::of(combine));
}

template <PrimitiveArray::Object V, class F>
inline void Communicator::scan(V&& value, InRankOrder<F> ordered) {
    static_assert(PrimitiveArray::assertReceives<V>());
    _scan(recordsOf(value), ReductionThunk<PrimitiveArray::EntryOf<V>, F>::of(ordered.combine), RANK_ORDER);
}

inline constexpr Communicator::Tag Communicator::_defaultTag{Tag::Unchecked{}, 0x7FFF};
