#include "machine/Communicator.h"

#include "machine/messages/CommunicatorFrame.h"
#include "machine/messages/MessageGate.h"

#include "mpiwrapper/OxmMpi.h"

namespace {

using Frame = CommunicatorFrame;
constexpr Frame::Operation BROADCAST = Frame::global("Communicator::Broadcast", Collective::BROADCAST);
constexpr Frame::Operation GATHER = Frame::global("Communicator::Gather", Collective::GATHER);
constexpr Frame::Operation GATHER_VECTOR =
    Frame::global("Communicator::GatherVector", Collective::GATHER_VECTOR);
constexpr Frame::Operation ALL_GATHER = Frame::global("Communicator::AllGather", Collective::ALL_GATHER);
constexpr Frame::Operation ALL_GATHER_VECTOR =
    Frame::global("Communicator::AllGatherVector", Collective::ALL_GATHER_VECTOR);
constexpr Frame::Operation SCATTER = Frame::global("Communicator::Scatter", Collective::SCATTER);
constexpr Frame::Operation SCATTER_VECTOR =
    Frame::global("Communicator::ScatterVector", Collective::SCATTER_VECTOR);
constexpr Frame::Operation ALL_TO_ALL = Frame::global("Communicator::AllToAll", Collective::ALL_TO_ALL);
constexpr Frame::Operation ALL_TO_ALL_VECTOR =
    Frame::global("Communicator::AllToAllVector", Collective::ALL_TO_ALL_VECTOR);

} // namespace

const int* Communicator::toWrapper(const unsigned* values) const {
    for (unsigned i = 0; i < _size; ++i)
        static_cast<void>(castCount<int>(values[i]));
    return reinterpret_cast<const int*>(values); // the signed type may look at the same memory
}

// Each of the cutting family cuts only where a smaller piece exists: one element of each rank goes as it is.

void Communicator::_broadcast(BufferBase<unsigned> buf, unsigned root) {
    if (MessagingGate::isOpen() && buf.size != 0 && !exceedsSizeLimits(buf.size, buf.typeSize)) [[likely]]
        broadcastWhole(buf, root);
    else
        broadcastStepwise(buf, root);
}

void Communicator::broadcastStepwise(BufferBase<unsigned> buf, unsigned root) {
    if (exceedsSizeLimits(buf.size, buf.typeSize) && buf.size > 1) [[unlikely]] {
        const unsigned lower = buf.size / 2;
        _broadcast(partOf(buf, 0u, lower), root);
        _broadcast(partOf(buf, lower, buf.size - lower), root);
        return;
    }
    if (buf.size == 0)
        return;
    MessageGate::pass();
    checkOversize(buf.size, buf.typeSize);
    broadcastWhole(buf, root);
}

inline void Communicator::broadcastWhole(BufferBase<unsigned> buf, unsigned root) {
    const auto rank = static_cast<int>(root);
    const unsigned bytes = bytesOf(buf);
    MpiCore::handleError(
        Frame::run<OXM_MPI_Bcast, BROADCAST>(this, bytes, Frame::collective(BROADCAST, bytes, rank), buf.data,
                                             static_cast<int>(buf.size), buf.type, rank, _handle));
}

void Communicator::_gather(ConstBufferBase<unsigned> sendbuf, BufferBase<unsigned> recvbuf, unsigned root) {
    ORVEX_ASSERT(sendbuf.type == recvbuf.type, "Communicator::gather");
    const bool exceeds = exceedsSizeLimits(static_cast<std::size_t>(sendbuf.size) * _size, sendbuf.typeSize);
    if (exceeds && sendbuf.size > 1) [[unlikely]] {
        cutGather(sendbuf, recvbuf, root);
        return;
    }
    if (sendbuf.size == 0)
        return;
    MessageGate::pass();
    if (!exceeds)
        checkOversize(recvbuf.size, recvbuf.typeSize);
    checkOversize(sendbuf.size, sendbuf.typeSize);
    ORVEX_ASSERT(sendbuf.type == recvbuf.type, "Mismatch in gather types");
    const auto count = static_cast<int>(sendbuf.size);
    MpiCore::handleError(Frame::run<OXM_MPI_Gather, GATHER>(
        this, bytesOf(sendbuf), Frame::collective(GATHER, bytesOf(sendbuf), static_cast<int>(root)),
        sendbuf.data, count, sendbuf.type, recvbuf.data, count, recvbuf.type, static_cast<int>(root),
        _handle));
}

void Communicator::_allGather(ConstBufferBase<unsigned> sendbuf, BufferBase<unsigned> recvbuf) {
    ORVEX_ASSERT(sendbuf.type == recvbuf.type, "Communicator::allGather");
    const bool exceeds = exceedsSizeLimits(static_cast<std::size_t>(sendbuf.size) * _size, sendbuf.typeSize);
    if (exceeds && sendbuf.size > 1) [[unlikely]] {
        cutAllGather(sendbuf, recvbuf);
        return;
    }
    if (sendbuf.size == 0)
        return;
    MessageGate::pass();
    checkOversize(exceeds ? sendbuf.size : recvbuf.size, recvbuf.typeSize);
    const auto count = static_cast<int>(sendbuf.size);
    MpiCore::handleError(Frame::run<OXM_MPI_Allgather, ALL_GATHER>(
        this, bytesOf(sendbuf), Frame::collective(ALL_GATHER, bytesOf(sendbuf)), sendbuf.data, count,
        sendbuf.type, recvbuf.data, count, recvbuf.type, _handle));
}

void Communicator::_scatter(ConstBufferBase<unsigned> sendbuf, BufferBase<unsigned> recvbuf, unsigned root) {
    ORVEX_ASSERT(sendbuf.type == recvbuf.type, "Communicator::scatter");
    const bool exceeds = exceedsSizeLimits(static_cast<std::size_t>(recvbuf.size) * _size, recvbuf.typeSize);
    if (exceeds && recvbuf.size > 1) [[unlikely]] {
        cutScatter(sendbuf, recvbuf, root);
        return;
    }
    if (recvbuf.size == 0)
        return;
    MessageGate::pass();
    checkOversize(recvbuf.size, recvbuf.typeSize);
    const auto count = static_cast<int>(recvbuf.size);
    MpiCore::handleError(Frame::run<OXM_MPI_Scatter, SCATTER>(
        this, bytesOf(recvbuf), Frame::collective(SCATTER, bytesOf(recvbuf), static_cast<int>(root)),
        sendbuf.data, count, sendbuf.type, recvbuf.data, count, recvbuf.type, static_cast<int>(root),
        _handle));
}

void Communicator::_gatherVector(ConstBufferBase<int> sendbuf, BufferBase<int> recvbuf,
                                 const unsigned* recvCounts, const unsigned* displacements, unsigned root) {
    ORVEX_ASSERT(sendbuf.type == recvbuf.type, "Communicator::gatherVector");
    CommunicatorFrame frame(*this, GATHER_VECTOR, bytesOf(sendbuf),
                            Frame::collective(GATHER_VECTOR, 0, static_cast<int>(root)));
    const bool here = _myRank == root;
    const int* const counts = here ? toWrapper(recvCounts) : nullptr;
    const int* const positions = here ? toWrapper(displacements) : nullptr;
    MpiCore::handleError(OXM_MPI_Gatherv(sendbuf.data, sendbuf.size, sendbuf.type, recvbuf.data, counts,
                                         positions, recvbuf.type, static_cast<int>(root), _handle));
    frame.finish();
}

void Communicator::_scatterVector(ConstBufferBase<int> sendbuf, const unsigned* sendCounts,
                                  const unsigned* displacements, BufferBase<int> recvbuf, unsigned root) {
    ORVEX_ASSERT(sendbuf.type == recvbuf.type, "Communicator::scatterVector");
    CommunicatorFrame frame(*this, SCATTER_VECTOR, bytesOf(recvbuf),
                            Frame::collective(SCATTER_VECTOR, 0, static_cast<int>(root)));
    const bool here = _myRank == root;
    const int* const counts = here ? toWrapper(sendCounts) : nullptr;
    const int* const positions = here ? toWrapper(displacements) : nullptr;
    MpiCore::handleError(OXM_MPI_Scatterv(sendbuf.data, counts, positions, sendbuf.type, recvbuf.data,
                                          recvbuf.size, recvbuf.type, static_cast<int>(root), _handle));
    frame.finish();
}

void Communicator::_allGatherVector(ConstBufferBase<unsigned> sendbuf, BufferBase<unsigned> recvbuf,
                                    const unsigned* recvCounts, const unsigned* displacements) {
    ORVEX_ASSERT(sendbuf.type == recvbuf.type, "Communicator::allGatherVector");
    if (exceedsSizeLimits(recvbuf.size, recvbuf.typeSize) && isDivisible(recvCounts)) [[unlikely]] {
        cutAllGatherVector(sendbuf, recvbuf, recvCounts, displacements);
        return;
    }
    CommunicatorFrame frame(*this, ALL_GATHER_VECTOR, bytesOf(sendbuf),
                            Frame::collective(ALL_GATHER_VECTOR, 0));
    const int* const counts = toWrapper(recvCounts);
    const int* const positions = toWrapper(displacements);
    MpiCore::handleError(OXM_MPI_Allgatherv(sendbuf.data, castCount<int>(sendbuf.size), sendbuf.type,
                                            recvbuf.data, counts, positions, recvbuf.type, _handle));
    frame.finish();
}

void Communicator::_allToAll(ConstBufferBase<int> sendbuf, BufferBase<int> recvbuf) {
    ORVEX_ASSERT(sendbuf.type == recvbuf.type, "Communicator::allToAll");
    const auto size = static_cast<int>(_size);
    MpiCore::handleError(Frame::run<OXM_MPI_Alltoall, ALL_TO_ALL>(
        this, bytesOf(sendbuf), Frame::collective(ALL_TO_ALL, bytesOf(sendbuf)), sendbuf.data,
        sendbuf.size / size, sendbuf.type, recvbuf.data, recvbuf.size / size, recvbuf.type, _handle));
}

void Communicator::_allToAllVector(ConstBufferBase<int> sendbuf, const unsigned* sendCounts,
                                   const unsigned* sendDisplacements, BufferBase<int> recvbuf,
                                   const unsigned* recvCounts, const unsigned* recvDisplacements) {
    ORVEX_ASSERT(sendbuf.type == recvbuf.type, "Communicator::allToAll");
    CommunicatorFrame frame(*this, ALL_TO_ALL_VECTOR, bytesOf(sendbuf),
                            Frame::collective(ALL_TO_ALL_VECTOR, 0));
    MpiCore::handleError(OXM_MPI_Alltoallv(sendbuf.data, toWrapper(sendCounts), toWrapper(sendDisplacements),
                                           sendbuf.type, recvbuf.data, toWrapper(recvCounts),
                                           toWrapper(recvDisplacements), recvbuf.type, _handle));
    frame.finish();
}
