#pragma once

#include "kernel/KernelExport.h"

#include <functional>
#include <memory>
#include <string>

class Properties;

/// Speaks to the clients of a serial or master process: JSON-RPC 2.0, one object a line, over TCP.
class ORVEX_KERNEL_EXPORT Server {
public:
    enum ConnectionMode { NO_CONNECTION = 0, SINGLE_CONNECTION = 1, COLLABORATIVE = 2 };

    static Server& getSingleton();
    static void reset();

    void setConnectionMode(ConnectionMode mode);
    void enableOutputToClients(bool on);
    void enableSessionLocator(bool on);
    void setAbortCallback(std::function<void()> callback);
    /// Empty: listen on loopback. Else listen on the network and accept this host only.
    void setClientAddress(const std::string& address);
    /// Number of ports to try from the port given to start(), -1: that port, then any free one.
    void setPortRange(int range);

    /// Serves on the calling thread, running each command there; returns when the server stops.
    void start(const std::wstring& name, unsigned port);
    /// Serves on a thread of its own; the commands run where Controller::processCommands() is served.
    void startInThread(const std::wstring& name, unsigned port);
    /// Asks the server to stop in order. Any thread, also a signal watcher's.
    void stop();
    bool isRunning() const;
    /// The port it listens on, 0 when it doesn't.
    unsigned getPort() const;
    std::string getSessionName() const;
    /// Returns when all notifications queued so far were handed to the clients' sockets, within a time limit.
    void flushNotifies();
    /// Tells the clients that the job ends, and why.
    void notifyAbort(Properties& reason);

private:
    struct Impl;
    Server();
    ~Server();
    std::unique_ptr<Impl> _impl;
};
