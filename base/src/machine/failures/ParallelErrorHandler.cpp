#include "machine/failures/ParallelErrorHandler.h"

#include "machine/Communicator.h"
#include "machine/ExitStatus.h"
#include "machine/GlobalCondition.h"
#include "machine/MachineGround.h"
#include "machine/MachineHost.h"
#include "machine/messages/OperationRecord.h"

#include "kernel/Error.h"
#include "kernel/Raise.h"
#include "kernel/Server.h"
#include "kernel/server/SessionKey.h"
#include "platform/Log.h"
#include "platform/NetworkAddress.h"
#include "platform/Thread.h"
#include "platform/Time.h"
#include "xmlrpc/XmlRpcFanOut.h"
#include "xmlrpc/XmlRpcPeer.h"
#include "xmlrpc/XmlRpcServer.h"
#include "xmlrpc/XmlRpcServerMethod.h"
#include "xmlrpc/XmlRpcSocket.h"
#include "xmlrpc/XmlRpcValue.h"

#include <algorithm>
#include <iostream>
#include <utility>

using XmlRpc::XmlRpcFanOut;
using XmlRpc::XmlRpcPeer;
using XmlRpc::XmlRpcServer;
using XmlRpc::XmlRpcServerMethod;
using XmlRpc::XmlRpcSocket;
using XmlRpc::XmlRpcValue;

namespace {

constexpr const char* NOTIFY = "Notify";
constexpr const char* CONTINUE = "Continue";
constexpr const char* ABORT = "Abort";
constexpr const char* FAILED = "Failed";

constexpr int BACKLOG = 1024; ///< all ranks may report at once, and strangers knock
constexpr int ATTEMPTS = 3;
constexpr int MAX_LOOP_FAILURES = 10;
constexpr double CALL_TIME = 5.0;     ///< [s] of one call
constexpr double COUNTING_TIME = 0.2; ///< [s] between looks while the master counts reports
constexpr double TICK = 1.0;          ///< [s]
constexpr double FAILURE_TIME = 1.0;  ///< [s] that the ranks have to come to the end of a failed command
/// [s] A reporter that hears nothing for so long takes the job down: the master, or the way to it, is gone.
constexpr double PATIENCE = 2.0 * ATTEMPTS * CALL_TIME;
/// [s] A rank that waits looks so often for the master; in a large job less often, since all ranks do.
constexpr double MASTER_TIME = 30.0;
constexpr double MASTER_TIME_OF_RANK = 0.05;
constexpr double CONNECT_TIME = 2.0; ///< [s]
/// [s] The first reporter has so long to take the job down; it prints its error and waits 5 s before.
constexpr double ABORT_TIME = 12.0;

/// An error of the handler's own can't wait for the handler.
thread_local bool isHandlerThread = false;

double now() {
    return Platform::time().getTime();
}

/// The wire form of a tree: one parameter, an array of one value.
XmlRpcValue wrap(const Properties& properties) {
    const XmlRpcValue::Array one{XmlRpcValue::fromXml("<value>" + properties.toXml())};
    return XmlRpcValue(XmlRpcValue::Array{XmlRpcValue(one)});
}

/// The tree that `parameters` hold; an empty one when they hold none.
Properties unwrap(const XmlRpcValue& parameters) {
    try {
        return Properties::fromXml(parameters.getArray().at(0).getArray().at(0).toXml());
    } catch (const std::exception& error) {
        OS::Log::instance("Default").warning("ParallelErrorHandler::unwrap", "@0@", error.what());
    }
    return {};
}

unsigned getReporter(const Properties& error) {
    try {
        return error.getOr(ParallelErrorHandler::PROCESSOR_TAG, MachineGround::nProcesses());
    } catch (const InputError&) {
        return MachineGround::nProcesses();
    }
}

} // namespace

/// All ranks met the error together.
class ParallelErrorHandler::ContinueCmd : public XmlRpcServerMethod {
public:
    explicit ContinueCmd(ParallelErrorHandler& handler) : XmlRpcServerMethod(CONTINUE), _handler(handler) {}
    void execute(const XmlRpcValue&, XmlRpcValue& result) override {
        _handler._resetRequested = true;
        _handler._peer->exitWork();
        result = XmlRpcValue(0);
    }

private:
    ParallelErrorHandler& _handler;
};

/// A rank reports an error to the master.
class ParallelErrorHandler::NotifyCmd : public XmlRpcServerMethod {
public:
    explicit NotifyCmd(ParallelErrorHandler& handler) : XmlRpcServerMethod(NOTIFY), _handler(handler) {}
    void execute(const XmlRpcValue& parameters, XmlRpcValue& result) override {
        if (MachineGround::isMaster())
            _handler.countReport(unwrap(parameters));
        result = XmlRpcValue(0);
    }

private:
    ParallelErrorHandler& _handler;
};

/// This rank takes the job down.
class ParallelErrorHandler::AbortCmd : public XmlRpcServerMethod {
public:
    explicit AbortCmd(ParallelErrorHandler& handler) : XmlRpcServerMethod(ABORT), _handler(handler) {}
    void execute(const XmlRpcValue&, XmlRpcValue& result) override {
        _handler.release(false);
        result = XmlRpcValue(0);
    }

private:
    ParallelErrorHandler& _handler;
};

/// A recoverable error on one rank: the others may wait for it.
class ParallelErrorHandler::FailedCmd : public XmlRpcServerMethod {
public:
    explicit FailedCmd(ParallelErrorHandler& handler) : XmlRpcServerMethod(FAILED), _handler(handler) {}
    void execute(const XmlRpcValue& parameters, XmlRpcValue& result) override {
        const Properties failure = unwrap(parameters);
        OS::Log::instance("Default").warning("ParallelErrorHandler::FailedCmd", "Rank @0@ has failed: @1@",
                                             getReporter(failure), failure.getOr(Error::MESSAGE_TAG, ""));
        if (_handler._onFailure)
            _handler._onFailure();
        result = XmlRpcValue(0);
    }

private:
    ParallelErrorHandler& _handler;
};

ParallelErrorHandler::ParallelErrorHandler()
    : _peer(std::make_unique<XmlRpcPeer>()), _thread(std::make_unique<Thread>(*this, "orvex-errors")),
      _decisionTimer(SYSTEM_WALL_TIMER) {
    _methods.push_back(std::make_unique<ContinueCmd>(*this));
    _methods.push_back(std::make_unique<NotifyCmd>(*this));
    _methods.push_back(std::make_unique<AbortCmd>(*this));
    _methods.push_back(std::make_unique<FailedCmd>(*this));
}

ParallelErrorHandler::~ParallelErrorHandler() {
    ParallelErrorHandler::stop();
    _thread->join();
    _peer->getServer().shutdown();
}

void ParallelErrorHandler::addMethod(XmlRpcServerMethod& method) {
    _peer->getServer().addMethod(method);
}

bool ParallelErrorHandler::start() {
    const bool bound = bind();
    Communicator& ranks = MachineGround::globalCommunicator();
    if (!GlobalCondition(bound, GlobalCondition::ON_ALL)) {
        std::vector<unsigned> flags;
        ranks.gather(bound ? 1u : 0u, flags, Communicator::masterRank());
        for (std::size_t rank = 0; rank < flags.size(); ++rank)
            if (flags[rank] == 0)
                std::cerr << "ParallelErrorHandler failed to bind to a port on MPI Rank : " << rank
                          << std::endl;
        return false;
    }
    spreadPlaces();
    _thread->start();
    return true;
}

/// On the address by which the hosts of the job reach each other.
bool ParallelErrorHandler::bind() {
    Communicator& ranks = MachineGround::globalCommunicator();
    std::string master = NetworkAddress::LOOPBACK;
    _secret.clear();
    if (MachineGround::isMaster()) {
        _secret = SessionKey::makeNonce();
        if (MachineGround::getHost().getNumberHosts() > 1)
            master = NetworkAddress::getOwn();
    }
    ranks.broadcast(_secret, Communicator::masterRank());
    ranks.broadcast(master, Communicator::masterRank());
    _master.host = master;
    _address = MachineGround::isMaster() ? master : NetworkAddress::getOwnTowards(master);
    _peer->setSecret(_secret);
    XmlRpcServer::Limits limits;
    constexpr unsigned OTHERS = 256; // strangers, who may be silent for a moment
    limits.connections = MachineGround::nProcesses() + OTHERS;
    _peer->getServer().setLimits(limits);
    return !_address.empty() && _peer->getServer().bindAndListen(0, BACKLOG, _address);
}

void ParallelErrorHandler::spreadPlaces() {
    Communicator& ranks = MachineGround::globalCommunicator();
    std::vector<int> ports;
    ranks.gather(_peer->getServer().getPort(), ports, Communicator::masterRank());
    std::string hosts;
    std::vector<unsigned> lengths;
    ranks.gatherVector(_address, hosts, lengths, Communicator::masterRank());
    std::size_t begin = 0;
    for (std::size_t rank = 0; rank < ports.size(); ++rank) {
        _places.push_back({hosts.substr(begin, lengths[rank]), ports[rank]});
        begin += lengths[rank];
    }
    _master.port = _peer->getServer().getPort();
    ranks.broadcast(_master.port, Communicator::masterRank());
}

bool ParallelErrorHandler::report(const Error& error) {
    if (isHandlerThread)
        return true;
    std::unique_lock lock(_mutex);
    _pendingError = error.getProperties();
    if (!_pendingError.hasName(PROCESSOR_TAG))
        _pendingError.set(PROCESSOR_TAG, static_cast<int>(MachineGround::getPartitionId()));
    _errorPending = true;
    _waiting = true;
    _answer = Answer::NONE;
    _peer->exitWork();
    const auto isAnswered = [this] { return _answer != Answer::NONE || _stopped; };
    const bool heard = _changed.wait_for(lock, std::chrono::duration<double>(PATIENCE), isAnswered);
    const bool carryOn = heard && _answer != Answer::ABORT;
    _waiting = false;
    _answer = Answer::NONE;
    ++_answersSeen;
    _changed.notify_all(); // the handler goes on when the answer was seen
    return carryOn;
}

void ParallelErrorHandler::stop() {
    {
        const std::lock_guard lock(_mutex);
        _stopped = true;
    }
    _changed.notify_all();
    _peer->exitWork();
}

void ParallelErrorHandler::run() {
    for (const auto& method : _methods)
        _peer->getServer().addMethod(*method);
    isHandlerThread = true;
    reset(false);
    while (!_stopped) {
        try {
            serveOnce();
        } catch (const std::exception& error) {
            OS::Log::instance("Default").error("ParallelErrorHandler::run", "@0@", error.what());
            noteLoopFailure();
        }
    }
}

void ParallelErrorHandler::serveOnce() {
    ORVEX_ASSERT_AS(_peer->getfd() != XmlRpcSocket::InvalidSocket,
                    "_xmlrpc->getfd() != XmlRpc::XmlRpcSocket::InvalidSocket", "Invalid XMLRPC server state");
    if (!_peer->work(getWaitTime()))
        noteLoopFailure();
    if (_stopped)
        return;
    sendPendingError();
    watchForFailure();
    if (MachineGround::isMaster() && _decisionTimer.getWallTime() > DECISION_TIME)
        decide();
    overseeAbort();
    if (!MachineGround::isMaster())
        watchMaster();
    if (_resetRequested)
        reset(true);
    if (_onTick)
        _onTick();
}

double ParallelErrorHandler::getWaitTime() const {
    if (_reports == 0)
        return TICK;
    constexpr double BEYOND = 0.001; // [s]
    return std::clamp(DECISION_TIME - _decisionTimer.getWallTime() + BEYOND, BEYOND, COUNTING_TIME);
}

void ParallelErrorHandler::noteLoopFailure() {
    if (++_loopFailures != MAX_LOOP_FAILURES)
        return;
    std::cout << "Node " << MachineGround::getPartitionId() << ": too many errors, stopping error handler."
              << std::endl;
    stop();
}

void ParallelErrorHandler::sendPendingError() {
    Properties error;
    {
        const std::lock_guard lock(_mutex);
        if (!_errorPending)
            return;
        error = std::exchange(_pendingError, Properties());
        _errorPending = false;
    }
    if (MachineGround::isMaster())
        countReport(error);
    else if (!callMaster(NOTIFY, error))
        release(false); // nobody can tell this rank to go on
}

/// An error of all ranks is over before anybody hears of it here.
void ParallelErrorHandler::watchForFailure() {
    const std::string failure = OperationRecord::read().failure;
    if (failure.empty()) {
        _failureTime = 0.0;
        _failureTold = false;
    } else if (_failureTime == 0.0) {
        _failureTime = now();
    } else if (!_failureTold && now() - _failureTime >= FAILURE_TIME) {
        _failureTold = true;
        tellFailure(failure);
    }
}

/// A main thread that waits in the message layer doesn't notice that the network is cut.
void ParallelErrorHandler::watchMaster() {
    const double time = now();
    const std::uint64_t generation = OperationRecord::getGeneration();
    const bool hasMoved = generation != _generation;
    _generation = generation;
    if (!hasMoved && (time < _nextWatch || !OperationRecord::isInside()))
        return;
    if (hasMoved || NetworkAddress::isReachable(_master.host, _master.port, CONNECT_TIME)) {
        _nextWatch = time + std::max(MASTER_TIME, MASTER_TIME_OF_RANK * MachineGround::nProcesses());
        _lostTime = 0.0;
        return;
    }
    _nextWatch = time + CALL_TIME;
    if (_lostTime == 0.0)
        _lostTime = time;
    else if (time - _lostTime >= PATIENCE && _onLost)
        _onLost();
}

void ParallelErrorHandler::tellFailure(const std::string& message) {
    Properties failure;
    failure.set(Error::MESSAGE_TAG, message);
    failure.set(PROCESSOR_TAG, static_cast<int>(MachineGround::getPartitionId()));
    if (!MachineGround::isMaster())
        static_cast<void>(callMaster(FAILED, failure)); // the master looks by itself, later
    else if (_onFailure)
        _onFailure();
}

bool ParallelErrorHandler::callMaster(const char* method, const Properties& properties) {
    const XmlRpcValue parameters = wrap(properties);
    XmlRpcValue result;
    for (int attempt = 0; attempt < ATTEMPTS && !_stopped; ++attempt)
        if (_peer->call(_master.host, _master.port, method, parameters, result, CALL_TIME))
            return true;
    OS::Log::instance("Default").error("ParallelErrorHandler::callMaster", "The master can't be told: @0@",
                                       _peer->getLastFailure());
    return false;
}

void ParallelErrorHandler::countReport(const Properties& error) {
    if (const unsigned reporter = getReporter(error);
        reporter < MachineGround::nProcesses() && !_reporters.insert(reporter).second)
        return; // it has lost the answer and asked again
    if (_reports == 0) {
        _decisionTimer.startWallTimer();
        _firstError = error;
        _firstReporter = getReporter(error);
    }
    ++_reports;
    _peer->exitWork();
}

void ParallelErrorHandler::decide() {
    if (_reports == MachineGround::nProcesses())
        letAllContinue();
    else
        abortFirstReporter();
    _resetRequested = true;
}

void ParallelErrorHandler::letAllContinue() {
    std::vector<unsigned> left;
    for (unsigned rank = 1; rank < _places.size(); ++rank)
        left.push_back(rank);
    for (int attempt = 0; attempt < ATTEMPTS && !left.empty(); ++attempt) {
        std::vector<XmlRpcFanOut::Call> calls;
        calls.reserve(left.size());
        for (const unsigned rank : left)
            calls.push_back(
                {_places[rank].host, _places[rank].port, CONTINUE, XmlRpcValue(XmlRpcValue::Array())});
        XmlRpcFanOut fanOut;
        fanOut.setSecret(_secret);
        const auto answers = fanOut.call(calls, 2.0 * CALL_TIME, CALL_TIME);
        std::vector<unsigned> silent;
        for (std::size_t i = 0; i < left.size(); ++i)
            if (!answers[i].answered)
                silent.push_back(left[i]);
        left.swap(silent);
    }
}

void ParallelErrorHandler::abortFirstReporter() {
    _firstError.set("ServerState", "exiting");
    Server::getSingleton().notifyAbort(_firstError);
    _abortTime = now() + ABORT_TIME;
    if (_firstReporter == MachineGround::getPartitionId()) {
        release(false);
        return;
    }
    if (_firstReporter >= _places.size()) {
        _abortTime = now(); // a report without a rank
        return;
    }
    const Place& place = _places[_firstReporter];
    XmlRpcValue result;
    for (int attempt = 0; attempt < ATTEMPTS; ++attempt)
        if (_peer->call(place.host, place.port, ABORT, XmlRpcValue(XmlRpcValue::Array()), result, CALL_TIME))
            return;
    _abortTime = now();
}

/// The reporter that was to take the job down may be dead, or cut off.
void ParallelErrorHandler::overseeAbort() {
    if (_abortTime == 0.0 || now() < _abortTime)
        return;
    _abortTime = 0.0;
    std::cerr << "Error: " + Error::getMessage(_firstError) + "\n  Rank " + std::to_string(_firstReporter) +
                     " has reported this error and doesn't end the job; the master does.\n"
              << std::flush;
    if (_onOverdue)
        _onOverdue();
}

/// The counts are fresh before the reporter of this rank goes on: it may report again at once.
void ParallelErrorHandler::reset(bool handOver) {
    _resetRequested = false;
    _reports = 0;
    _reporters.clear();
    _decisionTimer.reset();
    if (handOver)
        release(true);
}

/// Gives the reporter its answer, and goes on when it has seen it.
void ParallelErrorHandler::release(bool carryOn) {
    std::unique_lock lock(_mutex);
    if (!_waiting || _answer != Answer::NONE)
        return;
    _answer = carryOn ? Answer::CONTINUE : Answer::ABORT;
    _changed.notify_all();
    // By then the reporter may already wait again, for the answer to its next error.
    const unsigned long before = _answersSeen;
    _changed.wait(lock, [this, before] { return _answersSeen != before || _stopped; });
}
