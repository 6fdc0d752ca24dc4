#include "machine/failures/RollCall.h"

#include "machine/MachineGround.h"
#include "machine/MachineHost.h"
#include "machine/failures/ParallelErrorHandler.h"
#include "machine/failures/RollCallReport.h"
#include "machine/messages/OperationRecord.h"

#include "platform/Log.h"
#include "platform/NetworkAddress.h"
#include "platform/Process.h"
#include "platform/StackSampler.h"
#include "platform/ThreadState.h"
#include "platform/Time.h"
#include "xmlrpc/XmlRpcFanOut.h"
#include "xmlrpc/XmlRpcServerMethod.h"
#include "xmlrpc/XmlRpcValue.h"

#include <algorithm>
#include <map>
#include <optional>

using Platform::StackSampler;
using Platform::ThreadState;
using XmlRpc::XmlRpcFanOut;
using XmlRpc::XmlRpcServerMethod;
using XmlRpc::XmlRpcValue;

namespace {

constexpr const char* WHERE = "Where";
constexpr const char* LOOK = "Look";
constexpr double ANSWER_TIME = 2.0;  ///< [s] of one rank
constexpr double CONNECT_TIME = 1.0; ///< [s] for a host that is silent
constexpr double TOTAL_TIME = 4.0;   ///< [s] of all
constexpr std::size_t MAX_FRAMES = 48;

constexpr double BUSY = 0.05;          ///< of a processor: a main thread that works
constexpr double SHORTEST_LOOK = 1e-3; ///< [s]
constexpr double BUSY_THREADS = 0.25;  ///< the same of all threads: less may be those of the layer itself

/// Looks at the main thread. When it sleeps while other threads of the process work, for example those of a
/// hybrid context, it counts as one that runs, with the share of all.
ThreadState::Look lookAtOwn(int pid) {
    const Platform::Time& clock = Platform::time();
    Platform::ProcessorStamp stamp;
    clock.stampProcessorTime(stamp);
    const double begin = clock.getTime();
    ThreadState::Look look = ThreadState::look(pid, pid);
    const double share =
        clock.getElapsedProcessorTime(stamp) / std::max(clock.getTime() - begin, SHORTEST_LOOK);
    const bool mayWork = look.state == ThreadState::RUNS || look.state == ThreadState::SLEEPS;
    if (mayWork && share > std::max(BUSY_THREADS, look.processorShare)) {
        look.state = ThreadState::RUNS;
        look.processorShare = share;
    }
    return look;
}

/// The state of a main thread as people see it.
RankStanding::State classify(const ThreadState::Look& look, bool isInOperation) {
    switch (look.state) {
    case ThreadState::DEAD:
        return RankStanding::DEAD;
    case ThreadState::STOPPED:
    case ThreadState::TRACED:
        return RankStanding::STOPPED;
    default:
        break;
    }
    if (isInOperation)
        return RankStanding::WAITS;
    const bool isBusy = look.state == ThreadState::RUNS || look.processorShare > BUSY;
    return isBusy ? RankStanding::COMPUTES : RankStanding::SLEEPS;
}

std::vector<XmlRpcFanOut::Answer> ask(const std::vector<XmlRpcFanOut::Call>& calls,
                                      const std::string& secret) {
    XmlRpcFanOut fanOut;
    fanOut.setSecret(secret);
    return fanOut.call(calls, TOTAL_TIME, ANSWER_TIME);
}

RankStanding::State lookAt(int pid) {
    return classify(ThreadState::look(pid, pid), false); // a main thread has the number of its process
}

/// A rank that lives but doesn't answer stays silent: more isn't known of it.
void takeState(RankStanding::State state, RankStanding& standing) {
    if (state == RankStanding::DEAD || state == RankStanding::STOPPED)
        standing.state = state;
}

void takeStates(const XmlRpcValue& states, const std::vector<unsigned>& ranks,
                std::vector<RankStanding>& standings) {
    try {
        for (std::size_t i = 0; i < ranks.size(); ++i)
            takeState(RankStanding::stateOf(states.getArray().at(i).getString()), standings[ranks[i]]);
    } catch (const std::exception& error) {
        OS::Log::instance("Default").warning("RollCall::takeStates", "@0@", error.what());
    }
}

} // namespace

/// Answers with the standing of this rank.
class RollCall::WhereCmd : public XmlRpcServerMethod {
public:
    explicit WhereCmd(RollCall& call) : XmlRpcServerMethod(WHERE), _call(call) {}
    void execute(const XmlRpcValue& parameters, XmlRpcValue& result) override {
        const bool withStack = parameters.getArray().at(0).getBool();
        result = XmlRpcValue::fromXml("<value>" + _call.lookHere(withStack).toProperties().toXml());
    }

private:
    RollCall& _call;
};

/// Answers how processes of this host look that don't answer themselves.
class RollCall::LookCmd : public XmlRpcServerMethod {
public:
    LookCmd() : XmlRpcServerMethod(LOOK) {}
    void execute(const XmlRpcValue& parameters, XmlRpcValue& result) override {
        XmlRpcValue::Array states;
        for (const XmlRpcValue& pid : parameters.getArray())
            states.emplace_back(RankStanding::nameOf(lookAt(pid.getInt())));
        result = XmlRpcValue(std::move(states));
    }
};

RollCall::RollCall(ParallelErrorHandler* channel)
    : _channel(channel), _hosts(MachineGround::nProcesses()), _pids(MachineGround::nProcesses()) {
    for (const auto& [host, process] : MachineGround::getHost().getHostPidMap()) {
        _hosts.at(process.second) = host;
        _pids.at(process.second) = static_cast<int>(process.first);
    }
    if (!_channel)
        return;
    _methods.push_back(std::make_unique<WhereCmd>(*this));
    _methods.push_back(std::make_unique<LookCmd>());
    for (const auto& method : _methods)
        _channel->addMethod(*method);
}

RollCall::~RollCall() = default;

void RollCall::tick() {
    noteMovement(OperationRecord::getGeneration());
}

double RollCall::getStillSeconds() {
    return noteMovement(OperationRecord::getGeneration());
}

/// @return for how long the main thread hasn't moved [s]
double RollCall::noteMovement(std::uint64_t generation) {
    const std::lock_guard lock(_mutex);
    const Clock::time_point now = Clock::now();
    if (generation != _generation) {
        _generation = generation;
        _movedAt = now;
    }
    return std::chrono::duration<double>(now - _movedAt).count();
}

RankStanding RollCall::lookHere(bool withStack) {
    RankStanding standing;
    standing.rank = MachineGround::getPartitionId();
    standing.host = _hosts[standing.rank];
    standing.pid = _pids[standing.rank];
    const int pid = Platform::process().getPid();
    const ThreadState::Look look = lookAtOwn(pid);
    const OperationRecord::Snapshot record = OperationRecord::read();
    standing.processorShare = look.processorShare;
    standing.state = classify(look, record.isInside);
    // Nothing calls tick() in a serial process, and no message moves it within a command.
    standing.stillSeconds = _channel ? noteMovement(record.generation) : record.commandSeconds;
    standing.operations = record.operations;
    standing.collectives = record.collectives;
    standing.command = record.command;
    standing.commandSeconds = record.commandSeconds;
    standing.failure = record.failure;
    if (record.isInside) {
        standing.operation = record.operation;
        standing.communicator = record.communicator;
        standing.bytes = record.bytes;
        standing.partner = record.partner;
        standing.number = record.number;
    }
    if (withStack) {
        std::string whyNot;
        standing.stack = StackSampler::sample(MAX_FRAMES, &whyNot);
        if (standing.stack.empty())
            standing.stack.push_back("(no stack: " + whyNot + ")");
    }
    return standing;
}

Properties RollCall::answer(const Properties& request) {
    const Clock::time_point began = Clock::now();
    std::optional<unsigned> rank;
    if (request.hasName("rank"))
        rank = request.getUnsignedInt("rank");
    Properties answer = RollCallReport(callAll(true)).toProperties(rank);
    answer.set("seconds", std::chrono::duration<double>(Clock::now() - began).count());
    return answer;
}

std::vector<RankStanding> RollCall::callAll(bool withStacks) {
    std::vector<RankStanding> standings(MachineGround::nProcesses());
    for (unsigned rank = 0; rank < standings.size(); ++rank) {
        standings[rank].rank = rank;
        standings[rank].host = _hosts[rank];
        standings[rank].pid = _pids[rank];
    }
    if (_channel)
        lookAtSilent(standings, askAll(standings, withStacks));
    else
        standings[0] = lookHere(withStacks);
    return standings;
}

/// @return the ranks that didn't answer
std::vector<unsigned> RollCall::askAll(std::vector<RankStanding>& standings, bool withStacks) {
    const std::vector<ParallelErrorHandler::Place>& places = _channel->getPlaces();
    const unsigned own = MachineGround::getPartitionId();
    std::vector<XmlRpcFanOut::Call> calls;
    std::vector<unsigned> ranks;
    for (unsigned rank = 0; rank < places.size(); ++rank)
        if (rank != own) {
            calls.push_back({places[rank].host, places[rank].port, WHERE,
                             XmlRpcValue(XmlRpcValue::Array{XmlRpcValue(withStacks)})});
            ranks.push_back(rank);
        }
    const std::vector<XmlRpcFanOut::Answer> answers = ask(calls, _channel->getSecret());
    standings[own] = lookHere(withStacks);
    std::vector<unsigned> silent;
    for (std::size_t i = 0; i < ranks.size(); ++i) {
        RankStanding& standing = standings[ranks[i]];
        try {
            if (answers[i].answered) {
                standing = RankStanding::fromProperties(Properties::fromXml(answers[i].result.toXml()));
                standing.rank = ranks[i];
                continue;
            }
        } catch (const std::exception& error) {
            OS::Log::instance("Default").warning("RollCall::askAll", "Rank @0@: @1@", ranks[i], error.what());
        }
        silent.push_back(ranks[i]);
    }
    return silent;
}

/// By another rank on the same host that has answered.
void RollCall::lookAtSilent(std::vector<RankStanding>& standings, const std::vector<unsigned>& silent) {
    std::map<std::string, std::vector<unsigned>> silentOfHost;
    for (const unsigned rank : silent)
        silentOfHost[_hosts[rank]].push_back(rank);
    const std::vector<ParallelErrorHandler::Place>& places = _channel->getPlaces();
    std::vector<XmlRpcFanOut::Call> calls;
    std::vector<const std::vector<unsigned>*> looked;
    for (const auto& each : silentOfHost) {
        const std::string& host = each.first; // clang takes no structured binding into a lambda
        const std::vector<unsigned>& ranks = each.second;
        XmlRpcValue::Array pids;
        for (const unsigned rank : ranks)
            pids.emplace_back(_pids[rank]);
        const auto neighbour =
            std::find_if(standings.begin(), standings.end(), [&host](const RankStanding& other) {
                return other.host == host && other.state != RankStanding::SILENT;
            });
        if (neighbour == standings.end()) {
            askWholeHost(standings, ranks);
            continue;
        }
        if (neighbour->rank == MachineGround::getPartitionId()) {
            for (const unsigned rank : ranks)
                takeState(lookAt(_pids[rank]), standings[rank]);
            continue;
        }
        calls.push_back(
            {places[neighbour->rank].host, places[neighbour->rank].port, LOOK, XmlRpcValue(std::move(pids))});
        looked.push_back(&ranks);
    }
    const std::vector<XmlRpcFanOut::Answer> answers = ask(calls, _channel->getSecret());
    for (std::size_t i = 0; i < answers.size(); ++i)
        if (answers[i].answered)
            takeStates(answers[i].result, *looked[i], standings);
}

/// None of these ranks, which are all of their host, has answered.
void RollCall::askWholeHost(std::vector<RankStanding>& standings, const std::vector<unsigned>& ranks) const {
    const ParallelErrorHandler::Place& place = _channel->getPlaces()[ranks.front()];
    if (NetworkAddress::isReachable(place.host, place.port, CONNECT_TIME))
        return; // for example stopped
    for (const unsigned rank : ranks)
        standings[rank].failure = "its host " + _hosts[rank] + " can't be reached";
}
