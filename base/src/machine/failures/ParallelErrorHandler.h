#pragma once

#include "kernel/Properties.h"
#include "machine/Timer.h"
#include "platform/Runnable.h"

#include <atomic>
#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <vector>

class Error;
class Thread;

namespace XmlRpc {
class XmlRpcPeer;
class XmlRpcServerMethod;
class XmlRpcValue;
} // namespace XmlRpc

/// The channel between the ranks beside the message layer. It works when that layer is stuck.
///
/// Each rank serves XML-RPC over TCP on a thread of its own. A rank that meets a non-recoverable error
/// reports it to the master and waits. The master waits DECISION_TIME for the others. When all ranks have
/// reported, they met the error together: all continue, and the error fails the command on all of them.
/// Otherwise the first reporter is told to abort, which takes the job down.
///
/// A port takes requests of this job alone: its secret is made at the start and spread by the message layer.
/// It is on loopback when all ranks share a host, else on the address that leads to the master's host.
class ParallelErrorHandler : public Runnable {
public:
    static constexpr double DECISION_TIME = 0.5;              ///< [s]
    static constexpr const char* PROCESSOR_TAG = "Processor"; ///< the rank of the reporter

    /// The place of a rank's port.
    struct Place {
        std::string host; ///< an address in figures
        int port = 0;
    };

    ParallelErrorHandler();
    ParallelErrorHandler(const ParallelErrorHandler&) = delete;
    ParallelErrorHandler& operator=(const ParallelErrorHandler&) = delete;
    ~ParallelErrorHandler() override;

    /// Adds a method for the other ranks; it runs on the handler's thread. Borrowed. Before start().
    void addMethod(XmlRpc::XmlRpcServerMethod& method);
    /// Binds the port, and when all ranks have bound theirs, starts the thread. Collective over the global
    /// communicator, main thread. @return false on all ranks when one of them can't bind
    bool start();
    /// Tells the master of an error of this rank, and waits for its decision. One caller at a time, any
    /// thread except the handler's. @return whether to carry on: all ranks met the error
    bool report(const Error& error);

    /// Called on the master, on the handler's thread, when a rank has left its command by an error and the
    /// other ranks haven't come to the end of the command a second later. Before start().
    void setFailureCallback(std::function<void()> callback) { _onFailure = std::move(callback); }
    /// Called on the master when it has to take the job down itself: the reporter that was told to doesn't.
    /// Before start().
    void setOverdueCallback(std::function<void()> callback) { _onOverdue = std::move(callback); }
    /// Called on a worker when its main thread waits for others and the way to the master's host has been cut
    /// for a while: nobody will end this process. Before start().
    void setLostCallback(std::function<void()> callback) { _onLost = std::move(callback); }
    /// Called on the handler's thread about once a second, not while it is busy. Before start().
    void setTickCallback(std::function<void()> callback) { _onTick = std::move(callback); }

    /// One for each rank, on the master; empty elsewhere. Constant after start(). Any thread.
    const std::vector<Place>& getPlaces() const { return _places; }
    /// That requests to other ranks must carry. Constant after start(). Any thread.
    const std::string& getSecret() const { return _secret; }

    /// The thread's body.
    void run() override;
    /// Ends the thread, and the wait of a reporter. Any thread.
    void stop() override;

private:
    class ContinueCmd;
    class NotifyCmd;
    class AbortCmd;
    class FailedCmd;

    bool bind();
    void spreadPlaces();
    void serveOnce();
    double getWaitTime() const;
    void noteLoopFailure();
    void sendPendingError();
    void watchForFailure();
    void watchMaster();
    void tellFailure(const std::string& message);
    bool callMaster(const char* method, const Properties& properties);
    void countReport(const Properties& error);
    void decide();
    void letAllContinue();
    void abortFirstReporter();
    void overseeAbort();
    void reset(bool handOver);
    void release(bool carryOn);

    std::unique_ptr<XmlRpc::XmlRpcPeer> _peer;
    std::vector<std::unique_ptr<XmlRpc::XmlRpcServerMethod>> _methods;
    std::unique_ptr<Thread> _thread;
    Place _master;
    std::vector<Place> _places;
    std::string _address;
    std::string _secret;
    std::function<void()> _onFailure;
    std::function<void()> _onOverdue;
    std::function<void()> _onLost;
    std::function<void()> _onTick;

    std::atomic<bool> _stopped{false};
    std::atomic<bool> _resetRequested{false};

    // ---- Between the thread of the error and the handler's.
    enum class Answer { NONE, CONTINUE, ABORT };
    std::mutex _mutex;
    std::condition_variable _changed;
    bool _errorPending = false;
    bool _waiting = false; ///< a reporter waits for its answer
    Answer _answer = Answer::NONE;
    unsigned long _answersSeen = 0;
    Properties _pendingError;

    // ---- Of the handler's thread alone.
    int _loopFailures = 0;
    Properties _firstError; ///< of the reports that the master has counted
    unsigned _firstReporter = 0;
    std::set<unsigned> _reporters; ///< a rank that asks twice counts once
    unsigned _reports = 0;
    Timer _decisionTimer;
    double _failureTime =
        0.0; ///< [s] when the error was seen by which this rank has left its command; 0: none
    bool _failureTold = false;
    std::uint64_t _generation = 0; ///< of the main thread's operations
    double _nextWatch = 0.0;       ///< [s] when the master is looked for
    double _lostTime = 0.0;        ///< [s] since when it can't be reached; 0: it can
    double _abortTime = 0.0;       ///< [s] when the master ends the job itself; 0: nobody was told to
};
