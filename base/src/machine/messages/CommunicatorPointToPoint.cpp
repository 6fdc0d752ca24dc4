#include "machine/Communicator.h"

#include "machine/messages/CommunicatorFrame.h"
#include "machine/messages/MessageTags.h"

#include "mpiwrapper/OxmMpi.h"

namespace {

using Frame = CommunicatorFrame;
constexpr Frame::Operation SEND = Frame::pointToPoint("Communicator::Send", Frame::Operation::COPIED);
constexpr Frame::Operation I_SEND = Frame::pointToPoint("Communicator::iSend", Frame::Operation::NEVER);
constexpr Frame::Operation RECV = Frame::pointToPoint("Communicator::Recv");
constexpr Frame::Operation I_RECV = Frame::pointToPoint("Communicator::iRecv", Frame::Operation::NEVER);
constexpr Frame::Operation RECV_INIT = Frame::pointToPoint("Communicator::recvInit", Frame::Operation::NEVER);
constexpr Frame::Operation SEND_RECV = Frame::pointToPoint("Communicator::SendRecv");
constexpr Frame::Operation PROBE = Frame::pointToPoint("Communicator::Probe");
constexpr Frame::Operation START = Frame::pointToPoint("Communicator::Start", Frame::Operation::NEVER);
constexpr Frame::Operation WAIT = Frame::pointToPoint("Communicator::Wait");
constexpr Frame::Operation TEST = Frame::pointToPoint("Communicator::Test", Frame::Operation::NEVER);
constexpr Frame::Operation FREE_REQUEST{"Communicator::FreeRequest", CommunicatorStatistics::POINT_TO_POINT,
                                        false};

// Out of line, so that building a text doesn't weigh on the operations that pass.

[[noreturn, gnu::noinline, gnu::cold]] void raiseSendToSelf() {
    raiseInternalError("Cannot send to self", "dest!=_myRank", __FILE__, __LINE__);
}

[[noreturn, gnu::noinline, gnu::cold]] void raiseRecvFromSelf() {
    raiseInternalError("Cannot recv from self", "source!=_myRank", __FILE__, __LINE__);
}

void checkSend(unsigned dest, unsigned myRank) {
    if (dest == myRank) [[unlikely]]
        raiseSendToSelf();
}

void checkRecv(unsigned source, unsigned myRank) {
    if (source == myRank) [[unlikely]]
        raiseRecvFromSelf();
}

/// A new slot of a stack, which goes again unless the operation succeeds.
class Slot {
public:
    explicit Slot(MpiCore::RequestStack& requests) : _requests(&requests), _address(requests.push_back()) {}
    ~Slot() {
        if (_requests)
            _requests->pop();
    }
    Slot(const Slot&) = delete;
    Slot& operator=(const Slot&) = delete;

    int* address() const { return _address; }
    void keep() { _requests = nullptr; }

private:
    MpiCore::RequestStack* _requests;
    int* _address;
};

/// The common part of the non-blocking operations, which differ in the wrapper call.
template <auto call, const Frame::Operation& operation, class View>
void begin(Communicator& communicator, const View& buf, int partner, MpiCore::RequestStack& requests,
           int tag) {
    Slot slot(requests);
    const Frame::Call what = Frame::message(partner == OXM_MPI_ANY_SOURCE ? -1 : partner, tag, &requests);
    MpiCore::handleError(Frame::run<call, operation>(&communicator, bytesOf(buf), what, buf.data, buf.size,
                                                     buf.type, partner, tag, communicator.handle(),
                                                     slot.address()));
    slot.keep();
}

} // namespace

int Communicator::sendFrame(const void* data, int size, int type, unsigned dest, int tag, Communicator* self,
                            unsigned typeSize) {
    checkSend(dest, self->_myRank);
    return Frame::run<OXM_MPI_Send, SEND>(self, static_cast<unsigned>(size) * typeSize,
                                          Frame::message(static_cast<int>(dest), tag), data, size, type,
                                          static_cast<int>(dest), tag, self->_handle);
}

int Communicator::syncSendFrame(const void* data, int size, int type, unsigned dest, int tag,
                                Communicator* self, unsigned typeSize) {
    checkSend(dest, self->_myRank);
    return Frame::run<OXM_MPI_Ssend, SEND>(self, static_cast<unsigned>(size) * typeSize,
                                           Frame::message(static_cast<int>(dest), tag), data, size, type,
                                           static_cast<int>(dest), tag, self->_handle);
}

void Communicator::recvFrame(void* data, int size, int type, unsigned source, int tag, Communicator* self,
                             unsigned typeSize) {
    checkRecv(source, self->_myRank);
    CommunicatorFrame frame(*self, RECV, static_cast<unsigned>(size) * typeSize,
                            Frame::message(static_cast<int>(source), tag));
    OXM_MPI_Status_struct status;
    status.error = OXM_MPI_SUCCESS;
    const int code = OXM_MPI_Recv(data, size, type, static_cast<int>(source), tag, self->_handle, &status);
    MpiCore::handleError(code, status);
    frame.finish(source);
}

void Communicator::_recvFromAny(BufferBase<int> buf, unsigned& source, Tag tag) {
    CommunicatorFrame frame(*this, RECV, bytesOf(buf), Frame::message(-1, tag.value()));
    OXM_MPI_Status_struct status{};
    const int code =
        OXM_MPI_Recv(buf.data, buf.size, buf.type, OXM_MPI_ANY_SOURCE, tag.value(), _handle, &status);
    MpiCore::handleError(code, status);
    source = static_cast<unsigned>(status.source);
    frame.finish(source);
}

void Communicator::_sendrecv(ConstBufferBase<int> sendbuf, unsigned dest, BufferBase<int> recvbuf,
                             unsigned source) {
    ORVEX_ASSERT(sendbuf.type == recvbuf.type, "Communicator::sendrecv");
    ORVEX_ASSERT_AS(dest != _myRank && source != _myRank, "dest!=_myRank && source!=_myRank",
                    "Cannot sendrecv to/from self");
    CommunicatorFrame frame(*this, SEND_RECV, bytesOf(sendbuf), {static_cast<int>(source)});
    OXM_MPI_Status_struct status{};
    const int code = OXM_MPI_Sendrecv(sendbuf.data, sendbuf.size, sendbuf.type, static_cast<int>(dest),
                                      MessageTags::SENDRECV, recvbuf.data, recvbuf.size, recvbuf.type,
                                      static_cast<int>(source), MessageTags::SENDRECV, _handle, &status);
    MpiCore::handleError(code, status);
    frame.finish(source);
}

void Communicator::_iSend(ConstBufferBase<int> buf, unsigned dest, RequestStack& requests, Tag tag) {
    checkSend(dest, _myRank);
    begin<OXM_MPI_Isend, I_SEND>(*this, buf, static_cast<int>(dest), requests, tag.value());
}

void Communicator::_iSyncSend(ConstBufferBase<int> buf, unsigned dest, RequestStack& requests, Tag tag) {
    checkSend(dest, _myRank);
    begin<OXM_MPI_Issend, I_SEND>(*this, buf, static_cast<int>(dest), requests, tag.value());
}

void Communicator::_iRecv(BufferBase<int> buf, unsigned source, RequestStack& requests, Tag tag) {
    checkRecv(source, _myRank);
    begin<OXM_MPI_Irecv, I_RECV>(*this, buf, static_cast<int>(source), requests, tag.value());
    requests._isReceiving.back() = true;
}

void Communicator::_iRecvFromAny(BufferBase<int> buf, RequestStack& requests, Tag tag) {
    begin<OXM_MPI_Irecv, I_RECV>(*this, buf, OXM_MPI_ANY_SOURCE, requests, tag.value());
    requests._isReceiving.back() = true;
}

void Communicator::_recvInit(BufferBase<int> buf, unsigned source, PersistentRequestStack& requests,
                             Tag tag) {
    checkRecv(source, _myRank);
    begin<OXM_MPI_Recv_init, RECV_INIT>(*this, buf, static_cast<int>(source), requests, tag.value());
}

unsigned Communicator::toValues(int elements, unsigned stride) {
    ORVEX_ASSERT_AS(elements >= 0 && static_cast<unsigned>(elements) % stride == 0, "elements % stride == 0",
                    "The probed message isn't a whole number of values of this type");
    return static_cast<unsigned>(elements) / stride;
}

void Communicator::_probe(unsigned& source, unsigned& tag, const int& type, int& elements) {
    const int partner = source == MpiCore::ANY_SOURCE ? -1 : static_cast<int>(source);
    CommunicatorFrame frame(*this, PROBE, 0, {partner});
    OXM_MPI_Status_struct status{};
    MpiCore::handleError(OXM_MPI_Probe(static_cast<int>(source), Tag(tag).value(), _handle, &status), status);
    MpiCore::handleError(OXM_MPI_Get_count(&status, type, &elements));
    source = static_cast<unsigned>(status.source);
    tag = static_cast<unsigned>(status.tag);
    frame.finish(source);
}

bool Communicator::_iProbe(unsigned& source, unsigned& tag, const int& type, int& elements) {
    CommunicatorFrame frame(*this, PROBE, 0, Frame::Look::AT_REQUESTS);
    OXM_MPI_Status_struct status{};
    int flag = 0;
    elements = 0;
    MpiCore::handleError(OXM_MPI_Iprobe(static_cast<int>(source), Tag(tag).value(), _handle, &flag, &status),
                         status);
    if (flag != 0) {
        MpiCore::handleError(OXM_MPI_Get_count(&status, type, &elements));
        source = static_cast<unsigned>(status.source);
        tag = static_cast<unsigned>(status.tag);
    }
    frame.recordLook(*this, PROBE, flag != 0, {});
    frame.finish(flag != 0 ? source : 0);
    return flag != 0;
}

void Communicator::start(PersistentRequestStack& requests) {
    CommunicatorFrame frame(*this, START, 0);
    requests.start();
    frame.finish();
}

void Communicator::wait(RequestStack& requests) {
    CommunicatorFrame frame(*this, WAIT, 0, Frame::message(-1, 0, &requests));
    requests.wait();
    frame.finish();
}

void Communicator::wait(RequestStack& requests, std::vector<unsigned>& sources) {
    CommunicatorFrame frame(*this, WAIT, 0, Frame::message(-1, 0, &requests));
    requests.wait(sources);
    frame.finish();
}

bool Communicator::test(RequestStack& requests) {
    CommunicatorFrame frame(*this, TEST, 0, Frame::Look::AT_REQUESTS);
    const bool done = requests.test();
    frame.recordLook(*this, TEST, done, Frame::message(-1, 0, &requests));
    frame.finish();
    return done;
}

void Communicator::freeRequest(RequestStack& requests) {
    CommunicatorFrame frame(*this, FREE_REQUEST, 0, Frame::message(-1, 0, &requests));
    requests.free();
    frame.finish();
}
