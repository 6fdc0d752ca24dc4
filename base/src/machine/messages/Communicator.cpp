#include "machine/Communicator.h"

#include "machine/ExitStatus.h"
#include "machine/messages/CommunicatorFrame.h"
#include "machine/messages/MessageGate.h"

#include "kernel/MessagingGate.h"
#include "mpiwrapper/OxmMpi.h"

#include <algorithm>
#include <array>
#include <limits>

namespace {

/// Communicators whose timer is on: the gate is shut for a fast pass while there is one.
unsigned timedCommunicators = 0;

/// One for all objects that stand for all processes.
std::shared_ptr<CollectiveHistory> historyOfAll(unsigned size, unsigned rank) {
    static std::weak_ptr<CollectiveHistory> history;
    std::shared_ptr<CollectiveHistory> known = history.lock();
    if (!known) {
        known = std::make_shared<CollectiveHistory>(size, rank);
        known->setNumber(CollectiveHistory::GLOBAL_NUMBER);
        known->setName(CollectiveHistory::GLOBAL);
        history = known;
    }
    return known;
}

/// Another one for another list.
std::uint32_t keyOf(const std::vector<unsigned>& ranks) {
    std::uint64_t hash = ranks.size();
    for (const unsigned rank : ranks)
        hash = CollectiveHistory::extend(hash, rank + 1ull);
    return static_cast<std::uint32_t>(hash ^ hash >> 32);
}

constexpr MessageOperation CREATE{"Communicator::createCommunicator", CommunicatorStatistics::GLOBAL, true,
                                  Collective::CREATE_COMMUNICATOR};
constexpr MessageOperation CREATE_SHARED{"Communicator::createSharedMemCommunicators",
                                         CommunicatorStatistics::GLOBAL, true,
                                         Collective::CREATE_SHARED_MEMORY_COMMUNICATORS};
constexpr MessageOperation FREE{"Communicator::freeCommunicator"};

/// A group that lives for one operation.
class Group {
public:
    Group() = default;
    ~Group() {
        if (_handle != OXM_MPI_GROUP_NULL)
            OXM_MPI_Group_free(&_handle); // on the way out of a failure, which is the one to report
    }
    Group(const Group&) = delete;
    Group& operator=(const Group&) = delete;

    int* address() { return &_handle; }
    int get() const { return _handle; }
    void free() { MpiCore::handleError(OXM_MPI_Group_free(&_handle)); }

private:
    int _handle = OXM_MPI_GROUP_NULL;
};

} // namespace

void Communicator::Tag::raiseOutOfBounds() {
    raiseInternalError("out_of_bounds Communicator Tag", "tag < upper_bound() || tag == MpiCore::ANY_TAG",
                       __FILE__, __LINE__);
}

Communicator::Communicator() : Communicator(OXM_MPI_COMM_WORLD) {}

Communicator::Communicator(const int& handle) : _handle(handle), _group(OXM_MPI_GROUP_NULL) {
    try {
        readIdentity();
    } catch (...) {
        release();
        throw;
    }
}

void Communicator::readIdentity() {
    int size = 0;
    int rank = -1;
    // The values that these three set tell as much as their codes do.
    OXM_MPI_Comm_group(_handle, &_group);
    OXM_MPI_Comm_size(_handle, &size);
    OXM_MPI_Comm_rank(_handle, &rank);
    ORVEX_ASSERT(size > 0, "Zero or negative MPI comm size");
    ORVEX_ASSERT(rank >= 0, "Negative MPI rank");
    _size = static_cast<unsigned>(size);
    _myRank = static_cast<unsigned>(rank);
    _maxBufferSize = OXM_MPI_Get_max_buffer_size();
    _history = _handle == OXM_MPI_COMM_WORLD ? historyOfAll(_size, _myRank)
                                             : std::make_shared<CollectiveHistory>(_size, _myRank);

    std::array<char, OXM_MPI_MAX_PROCESSOR_NAME> name{};
    int namelen = 0;
    MpiCore::handleError(OXM_MPI_Get_processor_name(name.data(), &namelen));
    ORVEX_ASSERT(namelen + 1 < OXM_MPI_MAX_PROCESSOR_NAME, "Overflow on processor name");
    name[static_cast<std::size_t>(std::max(namelen, 0))] = '\0';
    _myName = name.data();
}

Communicator::~Communicator() {
    enableCommunicationTimer(false);
    release();
}

void Communicator::release() noexcept {
    // Nobody is left who could be told of a failure.
    if (_handle != OXM_MPI_COMM_NULL && _handle != OXM_MPI_COMM_WORLD) {
        const OperationRecord::Scope recorded(FREE, _history ? _history->getLabel() : 0);
        OXM_MPI_Comm_free(&_handle);
    }
    OXM_MPI_Group_free(&_group);
}

void Communicator::enableCommunicationTimer(bool on) {
    if (on == _communicationTimerEnabled)
        return;
    _communicationTimerEnabled = on;
    timedCommunicators += on ? 1u : -1u;
    MessagingGate::set(MessagingGate::COMMUNICATION_TIMER, timedCommunicators != 0);
}

CollectiveHistory& CollectiveHistory::of(const Communicator& communicator) {
    return *communicator._history;
}

std::unique_ptr<Communicator> Communicator::createCommunicator(const std::vector<unsigned>& ranks) const {
    MessageGate::pass();
    const unsigned size = _size;
    ORVEX_ASSERT(ranks.size() <= size, "Invalid number of ranks");
    std::vector<int> members;
    members.reserve(ranks.size());
    for (const unsigned rank : ranks) {
        ORVEX_ASSERT_AS(rank < size, "ranks[i] < size",
                        "Rank exceeds old communicator in createCommunicator()");
        ORVEX_ASSERT_AS(rank <= static_cast<unsigned>(std::numeric_limits<int>::max()),
                        "ranks[i] <= static_cast<unsigned int>(std::numeric_limits<int>::max())",
                        "Rank exceeds maximum integer range");
        members.push_back(static_cast<int>(rank));
    }

    _history->note(CollectiveHistory::wordOf(CREATE.collective, 0));
    const OperationRecord::Scope recorded(CREATE);
    const std::uint32_t number = _history->makeNumber(keyOf(ranks));
    Group group;
    int newHandle = OXM_MPI_COMM_NULL;
    MpiCore::handleError(
        OXM_MPI_Group_incl(_group, static_cast<int>(members.size()), members.data(), group.address()));
    MpiCore::handleError(OXM_MPI_Comm_create(_handle, group.get(), &newHandle));
    std::unique_ptr<Communicator> created;
    if (std::find(ranks.begin(), ranks.end(), _myRank) != ranks.end())
        created.reset(new Communicator(newHandle));
    if (created)
        created->_history->setNumber(number);
    group.free();
    return created;
}

std::unique_ptr<Communicator> Communicator::createSharedMemCommunicators() const {
    MessageGate::pass();
    _history->note(CollectiveHistory::wordOf(CREATE_SHARED.collective, 0));
    const OperationRecord::Scope recorded(CREATE_SHARED);
    int newHandle = OXM_MPI_COMM_NULL;
    MpiCore::handleError(
        OXM_MPI_Comm_split_type(_handle, OXM_MPI_COMM_TYPE_SHARED, 0, OXM_MPI_INFO_NULL, &newHandle));
    std::unique_ptr<Communicator> created(new Communicator(newHandle));
    // Each set of ranks has its own first rank.
    unsigned first = _myRank;
    if (created->_size > 1)
        MpiCore::handleError(OXM_MPI_Bcast(&first, 1, OXM_MPI_UNSIGNED, 0, newHandle));
    created->_history->setNumber(_history->makeNumber(first));
    return created;
}

NativeHandle Communicator::nativeHandle() const {
    int fortranHandle = 0;
    std::array<char, OXM_MPI_MAX_LIBRARY_VERSION_STRING> library{};
    MpiCore::handleError(OXM_MPI_Comm_native_handle(_handle, &fortranHandle, library.data()));
    return NativeHandle(fortranHandle, library.data());
}

void Communicator::abort(const ExitStatus& status) {
    OXM_MPI_Abort(_handle, status); // nothing is left to try after a failure
}
