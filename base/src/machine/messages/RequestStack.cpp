#include "machine/RequestStack.h"

#include "machine/messages/OperationRecord.h"
#include "machine/messages/OperationTrace.h"

#include "kernel/Raise.h"
#include "mpiwrapper/OxmMpi.h"

#include <boost/container/small_vector.hpp>

#include <chrono>
#include <iostream>

namespace {

constexpr MessageOperation WAIT{"RequestStack::wait", CommunicatorStatistics::POINT_TO_POINT};
constexpr MessageOperation WAIT_ANY{"RequestStack::waitAny", CommunicatorStatistics::POINT_TO_POINT};

/// Records a wait that no operation of a communicator is around.
class Recorded {
public:
    Recorded(const MessageOperation& operation, const void* requests)
        : _isOutermost(!OperationRecord::isInside()) {
        if (!_isOutermost)
            return;
        OperationRecord::begin(operation, 0, 0, -1);
        if (OperationTrace::isOn())
            _token =
                OperationTrace::get().open(operation, {.requests = OperationTrace::numberOf(requests)}, 0);
    }
    ~Recorded() {
        if (_token != 0)
            OperationTrace::get().close(_token, -1);
        if (_isOutermost)
            OperationRecord::end();
    }
    Recorded(const Recorded&) = delete;
    Recorded& operator=(const Recorded&) = delete;

private:
    bool _isOutermost;
    std::uint64_t _token = 0; ///< of a trace
};

constexpr unsigned NO_SOURCE = 0xFFFFFFFF;

/// Statuses of a whole stack, without an allocation for the usual few.
using Statuses = boost::container::small_vector<OXM_MPI_Status_struct, 32>;

/// The vector form of the error handling, entered on failure only.
void handleStackError(int code, const OXM_MPI_Status_struct* statuses, std::size_t count) {
    if (code != OXM_MPI_SUCCESS) [[unlikely]]
        MpiCore::handleError(code, std::vector<OXM_MPI_Status_struct>(statuses, statuses + count));
}

constexpr std::chrono::seconds WITHDRAWAL_TIME{5};

/// Takes a receive back. Nobody is left who could be told of a failure.
void withdraw(int& request) {
    if (OXM_MPI_Cancel(&request) != OXM_MPI_SUCCESS)
        return;
    // Completes at once, except for a message that is already on its way into the memory.
    const auto end = std::chrono::steady_clock::now() + WITHDRAWAL_TIME;
    int done = 0;
    OXM_MPI_Status_struct status{};
    while (OXM_MPI_Test(&request, &done, &status) == OXM_MPI_SUCCESS && done == 0)
        if (std::chrono::steady_clock::now() > end) {
            std::cout << "Warning : A receive can't be cancelled!" << std::endl;
            return;
        }
}

} // namespace

MpiCore::RequestStack::RequestStack() = default;

MpiCore::RequestStack::RequestStack(int& request) : _requests(1, request), _isReceiving(1, false) {
    request = OXM_MPI_REQUEST_NULL;
}

MpiCore::RequestStack::RequestStack(const RequestStack& rhs) {
    assertEmptyWith(rhs);
}

const MpiCore::RequestStack& MpiCore::RequestStack::operator=(const RequestStack& rhs) {
    assertEmptyWith(rhs);
    return *this;
}

MpiCore::RequestStack::~RequestStack() {
    if (_requests.empty())
        return;
    std::cout << "Warning : Request stack is non-empty!" << std::endl;
    for (std::size_t i = 0; i < _requests.size(); ++i)
        if (_isReceiving[i] && _requests[i] != OXM_MPI_REQUEST_NULL)
            withdraw(_requests[i]);
    for (int& request : _requests)
        if (request != OXM_MPI_REQUEST_NULL)
            OXM_MPI_Request_free(&request); // nobody is left who could be told of a failure
}

void MpiCore::RequestStack::noteReceives() {
    _isReceiving.assign(_requests.size(), true);
}

void MpiCore::RequestStack::assertEmptyWith(const RequestStack& rhs) const {
    ORVEX_ASSERT(this->_requests.empty() && rhs._requests.empty(),
                 "Cannot copy or assign non-empty request stacks");
}

int* MpiCore::RequestStack::push_back() {
    _isReceiving.push_back(false);
    return &_requests.emplace_back(OXM_MPI_REQUEST_NULL);
}

int MpiCore::RequestStack::pop() {
    if (_requests.empty())
        return OXM_MPI_REQUEST_NULL;
    const int request = _requests.back();
    _requests.pop_back();
    _isReceiving.pop_back();
    return request;
}

void MpiCore::RequestStack::wait() {
    complete(nullptr);
}

void MpiCore::RequestStack::wait(std::vector<unsigned>& sources) {
    if (_requests.empty())
        return;
    sources.resize(_requests.size());
    complete(sources.data());
}

void MpiCore::RequestStack::complete(unsigned* sources) {
    const std::size_t count = _requests.size();
    if (count == 0)
        return;
    const Recorded recorded(WAIT, this);
    Statuses statuses(count);
    const int code = count > 1 ? OXM_MPI_Waitall(static_cast<int>(count), _requests.data(), statuses.data())
                               : OXM_MPI_Wait(&_requests.back(), statuses.data());
    handleStackError(code, statuses.data(), count);
    if (sources)
        for (std::size_t i = 0; i < count; ++i)
            sources[i] = static_cast<unsigned>(statuses[i].source);
    clear();
}

void MpiCore::RequestStack::waitAny(unsigned& source) {
    source = NO_SOURCE;
    if (_requests.empty())
        return;
    int index = OXM_MPI_UNDEFINED;
    const Recorded recorded(WAIT_ANY, this);
    OXM_MPI_Status_struct status{};
    handleError(OXM_MPI_Waitany(static_cast<int>(_requests.size()), _requests.data(), &index, &status),
                status);
    ORVEX_ASSERT_AS(index != OXM_MPI_UNDEFINED, "false", "RequestStack::waitAny returned undefined!");
    source = static_cast<unsigned>(status.source);
    remove(static_cast<unsigned>(index));
}

bool MpiCore::RequestStack::test() {
    const std::size_t count = _requests.size();
    if (count == 0)
        return true;
    int flag = 0;
    Statuses statuses(count);
    const int code = count > 1
                         ? OXM_MPI_Testall(static_cast<int>(count), _requests.data(), &flag, statuses.data())
                         : OXM_MPI_Test(&_requests.back(), &flag, statuses.data());
    handleStackError(code, statuses.data(), count);
    if (flag != 1)
        return false;
    clear();
    return true;
}

bool MpiCore::RequestStack::testAny(unsigned& source) {
    source = NO_SOURCE;
    if (_requests.empty())
        return true;
    int index = OXM_MPI_UNDEFINED;
    int flag = 0;
    OXM_MPI_Status_struct status{};
    handleError(
        OXM_MPI_Testany(static_cast<int>(_requests.size()), _requests.data(), &index, &flag, &status));
    if (flag != 1)
        return false;
    ORVEX_ASSERT_AS(index != OXM_MPI_UNDEFINED, "false", "RequestStack::testAny returned undefined!");
    source = static_cast<unsigned>(status.source);
    remove(static_cast<unsigned>(index));
    return true;
}

void MpiCore::RequestStack::cancel() {
    cancelNoWait();
    wait();
}

void MpiCore::RequestStack::cancelNoWait() {
    // A slot is null where an earlier call completed some requests and failed on others.
    for (int& request : _requests)
        if (request != OXM_MPI_REQUEST_NULL)
            handleError(OXM_MPI_Cancel(&request));
}

void MpiCore::RequestStack::free() {
    for (int& request : _requests)
        if (request != OXM_MPI_REQUEST_NULL)
            handleError(OXM_MPI_Request_free(&request));
    RequestStack::clear();
}

void MpiCore::RequestStack::clear() {
    for (std::size_t i = 0; i < _requests.size(); ++i)
        ORVEX_ASSERT(_requests[i] == OXM_MPI_REQUEST_NULL, "Clearing non-null Request!");
    _requests.clear();
    _isReceiving.clear();
}

void MpiCore::RequestStack::remove(const unsigned& index) {
    _requests.erase(_requests.begin() + static_cast<std::ptrdiff_t>(index));
    _isReceiving.erase(_isReceiving.begin() + static_cast<std::ptrdiff_t>(index));
}
