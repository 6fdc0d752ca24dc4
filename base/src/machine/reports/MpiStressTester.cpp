#include "machine/reports/MpiStressTester.h"

#include "machine/Communicator.h"
#include "machine/reports/CollectiveStressTest.h"
#include "machine/reports/PairStressTest.h"

#include "kernel/Error.h"
#include "kernel/Properties.h"
#include "kernel/Raise.h"
#include "platform/Host.h"
#include "platform/Memory.h"

#include <algorithm>
#include <deque>
#include <functional>
#include <iomanip>
#include <iostream>
#include <sstream>
#include <utility>

namespace {

void broadcast(Communicator& communicator, unsigned* data, std::size_t count, unsigned root) {
    communicator.broadcast(data, count, root);
}

void reduce(Communicator& communicator, unsigned* data, std::size_t count, unsigned root) {
    communicator.reduce(data, count, Communicator::SUM, root);
}

void allReduce(Communicator& communicator, unsigned* data, std::size_t count, unsigned) {
    communicator.allReduce(data, count, Communicator::SUM);
}

void gather(Communicator& communicator, unsigned* data, std::size_t count, unsigned root) {
    std::vector<unsigned> all(communicator.myRank() == root ? count * communicator.size() : 0);
    communicator.gather(data, count, all.data(), root);
}

void allGather(Communicator& communicator, unsigned* data, std::size_t count, unsigned) {
    std::vector<unsigned> all(count * communicator.size());
    communicator.allGather(data, count, all.data());
}

void scatter(Communicator& communicator, unsigned* data, std::size_t count, unsigned root) {
    const std::vector<unsigned> all(communicator.myRank() == root ? count * communicator.size() : 0);
    communicator.scatter(all.data(), data, count, root);
}

/// Looks at the receives of all partners until each of them is complete.
void completeAll(Communicator& communicator, std::deque<Communicator::RequestStack>& receives) {
    const unsigned me = communicator.myRank();
    std::vector<bool> isDone(communicator.size());
    isDone[me] = true;
    for (unsigned nDone = 1; nDone < communicator.size();)
        for (unsigned rank = 0; rank < communicator.size(); ++rank)
            if (!isDone[rank] && communicator.test(receives[rank])) {
                isDone[rank] = true;
                ++nDone;
            }
}

void exchangeWithAll(Communicator& communicator, unsigned* data, std::size_t count, unsigned) {
    const unsigned me = communicator.myRank();
    std::vector<std::vector<unsigned>> received(communicator.size()); // outlives the requests
    std::deque<Communicator::RequestStack> receives(communicator.size());
    Communicator::RequestStack sends;
    for (unsigned rank = 0; rank < communicator.size(); ++rank) {
        if (rank == me)
            continue;
        received[rank].resize(count);
        communicator.iRecv(received[rank].data(), count, rank, receives[rank]);
    }
    for (unsigned rank = 0; rank < communicator.size(); ++rank)
        if (rank != me)
            communicator.iSend(data, count, rank, sends);
    completeAll(communicator, receives);
    communicator.wait(sends);
}

/// [messages] that a rank holds at a time.
std::size_t countBuffers(const std::string& name, unsigned ranks) {
    const bool holdsAll =
        name == "AllGather" || name == "AsynchExchange" || name == "Gather" || name == "Scatter";
    return holdsAll ? ranks + std::size_t{1} : 2;
}

/// Ranks of the communicator on this host. Collective.
unsigned countNeighbours(Communicator& communicator) {
    const std::size_t mine = std::hash<std::string>()(OS::Io::Host().getName());
    std::vector<std::size_t> all;
    communicator.allGather(mine, all);
    return static_cast<unsigned>(std::ranges::count(all, mine));
}

/// Before any rank allocates: without memory the system would end one of them. Collective.
/// @throw InputError on all ranks
void checkMemory(Communicator& communicator, std::size_t buffers, unsigned longest) {
    const double need = double(buffers) * longest;
    const double available = double(Platform::memory().getAvailable()) / countNeighbours(communicator);
    double smallest = available;
    communicator.allReduce(smallest, Communicator::MIN);
    if (need <= smallest)
        return;
    std::ostringstream text;
    text << std::fixed << std::setprecision(0) << "A message length of " << longest << " bytes takes " << need
         << " bytes on each rank, but only " << smallest << " are free";
    raise(InputError(text.str(), Error::RECOVERABLE_SEVERITY, Properties(), Error::DEFAULT_ERROR_TYPE, true));
}

} // namespace

MpiStressTester::MpiStressTester(Communicator& communicator, unsigned nSamples,
                                 const std::vector<unsigned>& messageLengths)
    : _communicator(&communicator), _nSamples(nSamples), _messageLengths(messageLengths) {
    using Collective = CollectiveStressTest;
    const auto add = [&](const char* name, Collective::Kind kind, Collective::Transfer transfer) {
        registerTest(
            std::make_unique<Collective>(name, kind, transfer, *_communicator, _nSamples, _messageLengths));
    };
    add("Broadcast", Collective::GLOBAL, broadcast);
    add("Reduce", Collective::GLOBAL, reduce);
    add("AllReduce", Collective::GLOBAL, allReduce);
    add("Gather", Collective::GLOBAL, gather);
    add("AllGather", Collective::GLOBAL, allGather);
    add("Scatter", Collective::GLOBAL, scatter);
    registerTest(std::make_unique<PairStressTest>("ISendRecv", *_communicator, _nSamples, _messageLengths));
    add("AsynchExchange", Collective::EXCHANGE, exchangeWithAll);
}

MpiStressTester::~MpiStressTester() = default;

void MpiStressTester::registerTest(std::unique_ptr<MpiStressTest> test) {
    std::string name = test->getName();
    _tests[std::move(name)] = std::move(test);
}

void MpiStressTester::runStressTests(const std::vector<std::string>& names, Properties& results) {
    results.set("Message Lengths", _messageLengths);
    results.set("Number Samples", _nSamples);
    std::vector<std::string> wanted = names;
    if (wanted.empty())
        for (const auto& [name, test] : _tests)
            wanted.push_back(name);
    std::size_t buffers = 0;
    for (const std::string& name : wanted)
        if (_tests.contains(name))
            buffers = std::max(buffers, countBuffers(name, _communicator->size()));
    const auto longest = std::ranges::max_element(_messageLengths);
    if (longest != _messageLengths.end())
        checkMemory(*_communicator, buffers, *longest);
    std::vector<Properties> entries;
    for (const std::string& name : wanted) {
        const auto found = _tests.find(name);
        if (found == _tests.end())
            tellUnknown(name);
        else
            entries.push_back(found->second->run());
    }
    results.set("Results", entries);
}

void MpiStressTester::tellUnknown(const std::string& name) const {
    std::cout << "Cannot find MPI Stress Test named : " << name << "\nAvailable tests are : \n";
    for (const auto& [known, test] : _tests)
        std::cout << known << '\n';
    std::cout << std::flush;
}
