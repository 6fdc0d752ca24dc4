#include "machine/Communicator.h"

#include "machine/messages/CollectiveHistory.h"
#include "machine/messages/MessageTags.h"
#include "machine/messages/OperationRecord.h"

#include "mpiwrapper/OxmMpi.h"

#include <iostream>
#include <memory>

namespace {

constexpr unsigned CHECK_OFFSET = 1000;
constexpr MessageOperation SPEED{"Communicator::getSendRecvSpeed", CommunicatorStatistics::POINT_TO_POINT};

} // namespace

void Communicator::testCommunicator() {
    std::cout << "\nTesting communicator " << _myName << std::endl;
    unsigned check = _myRank;
    broadcast(check, _master);
    if (_myRank == _master) {
        for (unsigned src = 1; src < _size; ++src) {
            recv(check, src, MessageTags::SELF_TEST);
            std::cout << "Comm " << _myName << ": received " << check << " from " << src << std::endl;
            ORVEX_ASSERT_AS(check - CHECK_OFFSET == src, "check-1000==src", "Communicator failed recv check");
        }
    } else {
        ORVEX_ASSERT(check == _master, "Communicator failed broadcast check");
        check = _myRank + CHECK_OFFSET;
        send(check, _master, MessageTags::SELF_TEST);
    }
}

double Communicator::getSendRecvSpeed(unsigned partner, bool sender, unsigned messageBytes,
                                      unsigned iterations) {
    const auto outgoing = std::make_unique_for_overwrite<char[]>(messageBytes);
    const auto incoming = std::make_unique_for_overwrite<char[]>(messageBytes);
    const int count = castCount<int>(messageBytes);
    const auto transfer = [&] {
        OXM_MPI_Status_struct status{};
        const auto rank = static_cast<int>(partner);
        if (sender)
            MpiCore::handleError(
                OXM_MPI_Ssend(outgoing.get(), count, OXM_MPI_CHAR, rank, MessageTags::SELF_TEST, _handle));
        else
            MpiCore::handleError(OXM_MPI_Recv(incoming.get(), count, OXM_MPI_CHAR, rank,
                                              MessageTags::SELF_TEST, _handle, &status),
                                 status);
    };

    const OperationRecord::Composite recorded(SPEED, _history->getLabel(), messageBytes,
                                              static_cast<int>(partner));
    transfer(); // opens the connection
    const double start = OXM_MPI_Wtime();
    for (unsigned i = 0; i < iterations; ++i)
        transfer();
    const double elapsed = OXM_MPI_Wtime() - start;
    const unsigned kibibytes = (messageBytes * iterations) >> 10;
    return kibibytes / elapsed;
}

void Communicator::performanceTest(std::vector<double>& results, unsigned messageBytes, unsigned iterations) {
    std::vector<double> speeds(_size, 0.0);
    for (unsigned s = 0; s < _size; ++s) {
        if (s != _myRank) {
            getSendRecvSpeed(s, false, messageBytes, iterations);
            continue;
        }
        for (unsigned d = 0; d < _size; ++d)
            if (d != _myRank)
                speeds[d] = getSendRecvSpeed(d, true, messageBytes, iterations);
    }
    gather(speeds, results, _master);
}
