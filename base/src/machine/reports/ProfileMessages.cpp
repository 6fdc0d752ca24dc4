#include "machine/reports/ProfileMessages.h"

#include "machine/Communicator.h"
#include "machine/MachineGround.h"
#include "machine/MachineHost.h"
#include "machine/MpiStatisticsManager.h"
#include "machine/reports/NameUnion.h"
#include "machine/reports/ProfileHosts.h"
#include "machine/reports/ProfileNumbers.h"

#include "kernel/Properties.h"

#include <cstdint>
#include <set>
#include <string>
#include <utility>
#include <vector>

namespace {

using Manager = MpiStatisticsManager;
constexpr unsigned MASTER = Communicator::_master;
constexpr std::size_t CLASSES = Manager::NUMBER_CLASSES;

template <class T>
void sumOnMaster(std::vector<T>& values) {
    if (MachineGround::isParallel() && !values.empty())
        MachineGround::globalCommunicator().reduce(values, Communicator::SUM, MASTER);
}

/// The numbers of class `i` in a list of all classes of all names.
template <class T>
std::vector<T> cut(const std::vector<T>& values, std::size_t i) {
    const auto first = values.begin() + static_cast<std::ptrdiff_t>(i * CLASSES);
    return {first, first + CLASSES};
}

/// Adds an entry for each operation that some rank knows. Collective.
template <class Events>
void gatherOperations(const Events& mine, const char* kind, std::vector<Properties>& operations) {
    std::set<std::string> names;
    for (const auto& [name, event] : mine)
        names.insert(name);
    if (MachineGround::isParallel())
        names = NameUnion::unite(MachineGround::globalCommunicator(), std::move(names));
    std::vector<long long> counts;
    std::vector<double> times;
    for (const std::string& name : names) {
        const auto event = mine.find(name);
        for (std::size_t i = 0; i < CLASSES; ++i) {
            counts.push_back(event == mine.end() ? 0 : static_cast<long long>(event->second->getCounts()[i]));
            times.push_back(event == mine.end() ? 0.0 : event->second->getTimes()[i]);
        }
    }
    sumOnMaster(counts);
    sumOnMaster(times);
    std::size_t place = 0;
    for (const std::string& name : names) {
        Properties& entry = operations.emplace_back();
        entry.set("name", name);
        entry.set("kind", kind);
        entry.set("count", cut(counts, place));
        entry.set("seconds", ProfileNumbers::round(cut(times, place), ProfileNumbers::countDigits(1)));
        ++place;
    }
}

/// An event that isn't the sending of a message to its partner: it would count a message twice, or it has no
/// partner and counts at rank 0.
bool isNoSend(const std::string& name) {
    static const std::set<std::string> names{
        "Communicator::FreeRequest", "Communicator::Probe",  "Communicator::Recv",  "Communicator::Start",
        "Communicator::Test",        "Communicator::Wait",   "Communicator::iRecv", "Communicator::recvInit",
        "RequestStack::wait",        "RequestStack::waitAny"};
    return names.contains(name);
}

/// Its partner is the sender of what it received.
constexpr const char* EXCHANGE = "Communicator::SendRecv";

/// How many messages this rank sent to each rank, or, from exchanges, how many it received from each.
std::vector<long long> countPartners(bool exchanges) {
    std::vector<long long> partners(MachineGround::nProcesses());
    for (const auto& [name, event] : Manager::getSingleton().getPt2PtEvents()) {
        if (isNoSend(name) || (name == EXCHANGE) != exchanges)
            continue;
        for (std::size_t rank = 0; rank < partners.size(); ++rank)
            partners[rank] += static_cast<long long>(event->getPartnerCounts()[rank]);
    }
    return partners;
}

/// The rows of all ranks that have one, one behind the other, on the serial or master process.
std::vector<long long> gatherRows(const std::vector<long long>& mine) {
    std::vector<long long> rows = mine;
    if (MachineGround::isParallel()) {
        std::vector<unsigned> lengths;
        MachineGround::globalCommunicator().gatherVector(mine, rows, lengths, MASTER);
    }
    return rows;
}

/// The counts of the ranks of this host by the host of the partner, on the first rank of the host; empty on
/// the others. Collective over the ranks of the host.
std::vector<long long> sumByHost(const std::vector<long long>& partners, std::size_t hosts) {
    const std::vector<unsigned> hostOfRank = ProfileHosts::listHostOfRank();
    std::vector<long long> sums(hosts);
    for (std::size_t rank = 0; rank < partners.size(); ++rank)
        sums[hostOfRank[rank]] += partners[rank];
    MachineGround::getHost().getIntraHostComm().reduce(sums, Communicator::SUM, 0);
    if (!MachineGround::getHost().firstProcessOnHost())
        sums.clear();
    return sums;
}

/// @param sent      row by row, from the row to the column
/// @param received  row by row, from the column to the row
Properties makeSquare(const std::vector<long long>& sent, const std::vector<long long>& received,
                      std::size_t width) {
    std::vector<std::vector<long long>> rows(width, std::vector<long long>(width));
    for (std::size_t row = 0; row < width; ++row)
        for (std::size_t column = 0; column < width; ++column)
            rows[row][column] = sent[row * width + column] + received[column * width + row];
    return ProfileNumbers::makeRows("counts", rows);
}

/// Collective.
Properties gatherPartners(unsigned maxRanks) {
    const unsigned ranks = MachineGround::nProcesses();
    const std::size_t hosts = MachineGround::getHost().getNumberHosts();
    const bool isByHost = ranks > maxRanks;
    Properties part;
    if (isByHost && hosts > ProfileMessages::MAX_HOSTS) {
        part.set("ranks", 0);
        return part;
    }
    std::vector<long long> squares[2];
    for (const bool exchanges : {false, true}) {
        const std::vector<long long> mine = countPartners(exchanges);
        squares[exchanges] = gatherRows(isByHost ? sumByHost(mine, hosts) : mine);
    }
    part.set("ranks", ranks);
    if (isByHost)
        part.set("byHost", true);
    if (MachineGround::isSerialOrMaster())
        part.merge(makeSquare(squares[0], squares[1], isByHost ? hosts : ranks));
    return part;
}

} // namespace

Properties ProfileMessages::gather(bool isOn, unsigned maxRanks) {
    int isOnEverywhere = isOn ? 1 : 0;
    if (MachineGround::isParallel())
        MachineGround::globalCommunicator().allReduce(isOnEverywhere, Communicator::MIN);
    Properties part;
    part.set("on", isOnEverywhere != 0);
    if (isOnEverywhere == 0)
        return part;
    std::vector<Properties> operations;
    gatherOperations(Manager::getSingleton().getGlobalEvents(), "global", operations);
    gatherOperations(Manager::getSingleton().getPt2PtEvents(), "pair", operations);
    const Properties partners = gatherPartners(maxRanks);
    if (!MachineGround::isSerialOrMaster())
        return Properties();
    part.set("classes", std::vector<unsigned>(Manager::LOWER_BOUNDS.begin(), Manager::LOWER_BOUNDS.end()));
    part.set("operations", operations);
    part.set("partners", partners);
    return part;
}
