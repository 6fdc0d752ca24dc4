#pragma once

#include "kernel/KernelExport.h"

#include <functional>
#include <memory>
#include <string>

class Properties;
struct ServerLimits;

/// Speaks to the clients of a serial or master process: JSON-RPC 2.0, one object a line, over TCP.
///
/// A client that doesn't prove in time that it holds the session's key is cut off; what any client sends or
/// leaves unread is bounded by ServerLimits. Configure first, then start; a Server starts once, reset() makes
/// a new one.
class ORVEX_KERNEL_EXPORT Server {
public:
    enum ConnectionMode {
        NO_CONNECTION = 0,     ///< doesn't listen; ends by stop() alone
        SINGLE_CONNECTION = 1, ///< one client at a time, a second one is told who is connected
        COLLABORATIVE = 2
    };

    static Server& getSingleton();
    /// Stops the server, if it runs, and destroys it. Main thread.
    static void reset();

    void setConnectionMode(ConnectionMode mode);
    /// Whether what this process writes to std::cout while the server runs reaches the clients as well.
    void enableOutputToClients(bool on);
    /// Whether clients on this host find the session by themselves. If not, the session record is written all
    /// the same, and who was told its path can use it.
    void enableSessionLocator(bool on);
    /// Called on the server's thread when a client demands the abort of the job.
    void setAbortCallback(std::function<void()> callback);
    /// Asks all ranks where they stand, for `server.where` and a forced cancel. The request may hold "rank"
    /// (unsigned): then one rank is to be told in full. The result goes to the client as it is; its "text"
    /// is for people, its "verdict" the reason when a job is taken down. The callback runs on a thread of its
    /// own, never on the server's or the main thread, at most one at a time. It should return within 10 s:
    /// after that the clients are told that there is no answer. An exception becomes the client's error.
    /// Before the start.
    void setRollCall(std::function<Properties(const Properties& request)> callback);
    /// The same for another method that the ranks take part in, for example "server.live". It gets the
    /// client's request as it is; an empty callback takes the method away. Before the start.
    void setSlowMethod(const std::string& method,
                       std::function<Properties(const Properties& request)> callback);
    /// Tells what the command at work has cost so far, for `server.status`. Any thread. Before the start.
    void setBillCallback(std::function<Properties()> callback);
    /// Empty: listen on loopback. Else listen on the network and accept this host (name or address) only.
    void setClientAddress(const std::string& address);
    /// Number of ports to try from the port given to start(), -1: that port, then any free one.
    void setPortRange(int range);
    /// Called once by start(), on the calling thread, when the last client was answered and no command will
    /// come any more: the place to release the other ranks. startInThread() doesn't call it; there
    /// Controller::processCommands() returns.
    void setServiceEndedCallback(std::function<void()> callback);
    /// Replaces the defaults of kernel/server/ServerLimits.h. Before the start.
    void setLimits(const ServerLimits& limits);

    /// Serves on the calling thread, running each command there; returns when the server has stopped.
    /// @throw NonRecoverableError when no port can be had
    void start(const std::wstring& name, unsigned port);
    /// Serves on a thread of its own; the commands run where Controller::processCommands() is served.
    /// @throw NonRecoverableError when no port can be had
    void startInThread(const std::wstring& name, unsigned port);
    /// Asks the server to stop in order: the command at work finishes and is answered, queued requests are
    /// refused, Controller::stopProcessing() is called, the clients are told. Returns at once. Any thread,
    /// also a signal watcher's (not a signal handler); again has no further effect.
    void stop();
    /// Stops and returns when nothing of the service is left: thread, sockets, session record, console tap.
    /// The thread that runs the commands, after Controller::processCommands() returned.
    void join();
    /// True from the moment that clients can connect (that stop() can end it, without connections) to the
    /// end.
    bool isRunning() const;
    /// The port it listens on, 0 when it doesn't.
    unsigned getPort() const;
    /// The name of this host as clients reach it.
    std::string getHost() const;
    std::string getSessionName() const;
    /// Returns when all notifications queued so far were handed to the clients' sockets, within a time limit.
    /// A client that didn't keep up last time isn't waited for.
    void flushNotifies();
    /// Tells the clients that the job ends, and why. Any thread; takes a fraction of a second at most.
    void notifyAbort(Properties& reason);
    /// Sends `params` to the clients as the notification `method`. A client that reads slowly may miss it.
    /// Any thread.
    void notify(const std::string& method, const Properties& params);
    /// Sends `text`, of one or several lines, to all clients for people to read, as `server.notice`. It is
    /// never dropped. Any thread.
    void tellClients(const std::string& text);

private:
    struct Impl;
    Server();
    ~Server();
    std::unique_ptr<Impl> _impl;
};
