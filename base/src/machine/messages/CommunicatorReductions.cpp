#include "machine/Communicator.h"

#include "machine/messages/CommunicatorFrame.h"

#include "mpiwrapper/OxmMpi.h"

#include <exception>
#include <utility>
#include <vector>

namespace {

using Frame = CommunicatorFrame;
constexpr Frame::Operation REDUCE = Frame::global("Communicator::Reduce", Collective::REDUCE);
constexpr Frame::Operation ALL_REDUCE = Frame::global("Communicator::AllReduce", Collective::ALL_REDUCE);
constexpr Frame::Operation SCAN = Frame::global("Communicator::scan", Collective::SCAN);
constexpr Frame::Operation REDUCE_SCATTER =
    Frame::global("Communicator::reduceScatter", Collective::REDUCE_SCATTER);

/// The call of a reduction to the history. A function and a type of this program have numbers of their own on
/// each rank: they count as custom ones.
Frame::Call callOf(const Frame::Operation& operation, unsigned bytes, int root, int reduction, int type) {
    const bool isCustom = reduction > OXM_MPI_MINLOC;
    return Frame::collective(operation, bytes, root,
                             isCustom ? CollectiveHistory::CUSTOM_REDUCTION : reduction, isCustom ? 0 : type);
}

/// A reduction operation that lives for one call.
class TemporaryOperation {
public:
    TemporaryOperation(Communicator::ReductionFunction function, int commutes) {
        const int err = OXM_MPI_Op_create(function, commutes, &_op);
        ORVEX_ASSERT(err == OXM_MPI_SUCCESS, "Failed to create reduction op");
    }
    ~TemporaryOperation() {
        if (_op != OXM_MPI_OP_NULL)
            OXM_MPI_Op_free(&_op); // on the way out of a failure, which is the one to report
    }
    TemporaryOperation(const TemporaryOperation&) = delete;
    TemporaryOperation& operator=(const TemporaryOperation&) = delete;

    int get() const { return _op; }
    void free() {
        int op = std::exchange(_op, OXM_MPI_OP_NULL);
        const int err = OXM_MPI_Op_free(&op);
        ORVEX_ASSERT(err == OXM_MPI_SUCCESS, "Failed to delete reduction op");
    }

private:
    int _op = OXM_MPI_OP_NULL;
};

} // namespace

Communicator::CustomReductionBuffer::CustomReductionBuffer(void* records, int count, unsigned recordSize,
                                                           const Unit& unit)
    : _contiguousType(allocateContiguous(recordSize / unit.size, unit.type)), _buffer{records, count,
                                                                                      _contiguousType,
                                                                                      recordSize} {}

Communicator::CustomReductionBuffer::~CustomReductionBuffer() {
    if (_contiguousType != OXM_MPI_DATATYPE_NULL)
        OXM_MPI_Type_free(&_contiguousType); // nobody is left who could be told of a failure
}

int Communicator::CustomReductionBuffer::allocateContiguous(std::size_t count, int baseType) {
    int type = OXM_MPI_DATATYPE_NULL;
    // A type that couldn't be made stays null, and the reduction that uses it reports that.
    OXM_MPI_Type_contiguous(castCount<int>(count), baseType, &type);
    OXM_MPI_Type_commit(&type);
    return type;
}

int Communicator::allReduceFrame(void* data, int size, int type, int op, Communicator* self,
                                 unsigned typeSize) {
    const unsigned bytes = static_cast<unsigned>(size) * typeSize;
    return Frame::run<OXM_MPI_Allreduce, ALL_REDUCE>(
        self, bytes, Frame::collective(ALL_REDUCE, bytes, -1, op, type),
        static_cast<const void*>(OXM_MPI_IN_PLACE), data, size, type, op, self->_handle);
}

void Communicator::_reduce(BufferBase<int> buf, int op, unsigned root) {
    if (buf.size <= 0)
        return;
    const bool here = _myRank == root;
    const void* send = here ? OXM_MPI_IN_PLACE : buf.data;
    void* result = here ? buf.data : nullptr;
    MpiCore::handleError(Frame::run<OXM_MPI_Reduce, REDUCE>(
        this, bytesOf(buf), callOf(REDUCE, bytesOf(buf), static_cast<int>(root), op, buf.type), send, result,
        buf.size, buf.type, op, static_cast<int>(root), _handle));
}

void Communicator::_scan(BufferBase<int> buf, int op) {
    if (buf.size <= 0)
        return;
    MpiCore::handleError(Frame::run<OXM_MPI_Scan, SCAN>(
        this, bytesOf(buf), callOf(SCAN, bytesOf(buf), -1, op, buf.type),
        static_cast<const void*>(OXM_MPI_IN_PLACE), buf.data, buf.size, buf.type, op, _handle));
}

void Communicator::_reduce(const CustomReductionBuffer& buffer, ReductionFunction function, unsigned root,
                           Order order) {
    TemporaryOperation operation(function, order);
    _reduce(buffer.get(), operation.get(), root);
    operation.free();
}

void Communicator::_allReduce(const CustomReductionBuffer& buffer, ReductionFunction function, Order order) {
    TemporaryOperation operation(function, order);
    const BufferBase<int> buf = buffer.get();
    if (buf.size > 0)
        MpiCore::handleError(Frame::run<OXM_MPI_Allreduce, ALL_REDUCE>(
            this, bytesOf(buf), callOf(ALL_REDUCE, bytesOf(buf), -1, operation.get(), buf.type),
            static_cast<const void*>(OXM_MPI_IN_PLACE), buf.data, buf.size, buf.type, operation.get(),
            _handle));
    operation.free();
}

void Communicator::_scan(const CustomReductionBuffer& buffer, ReductionFunction function, Order order) {
    TemporaryOperation operation(function, order);
    _scan(buffer.get(), operation.get());
    operation.free();
}

void Communicator::_reduceScatter(ConstBufferBase<int> sendbuf, BufferBase<int> recvbuf, int op) {
    ORVEX_ASSERT(sendbuf.type == recvbuf.type, "Communicator::reduceScatter : mismatched types");
    ORVEX_ASSERT_AS(sendbuf.size == static_cast<long long>(_size) * recvbuf.size,
                    "sendbuf.size == SizeType(size())*recvbuf.size",
                    "Communicator::reduceScatter : mismatched counts");
    CommunicatorFrame frame(*this, REDUCE_SCATTER, bytesOf(sendbuf),
                            Frame::collective(REDUCE_SCATTER, bytesOf(sendbuf), -1, op, sendbuf.type));
    const std::vector<int> counts(_size, recvbuf.size);
    MpiCore::handleError(
        OXM_MPI_Reduce_scatter(sendbuf.data, recvbuf.data, counts.data(), recvbuf.type, op, _handle));
    frame.finish();
}
