#pragma once

#include "kernel/Controller.h"
#include "kernel/Server.h"
#include "kernel/server/ConsoleRelay.h"
#include "kernel/server/ForcedEnd.h"
#include "kernel/server/RollCallDesk.h"
#include "kernel/server/RpcConnection.h"
#include "kernel/server/ServerClients.h"
#include "kernel/server/ServerLimits.h"
#include "kernel/server/SessionKey.h"
#include "platform/RateLimitedLog.h"

#include <atomic>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

class CommandDeadline;
class Properties;
class RpcListener;
struct RpcFault;
struct RpcMessage;
struct RpcSocket;

namespace asio {
class io_context;
}

/// One run of a Server, from the first listening to the last connection's end.
///
/// One thread runs the loop, with run() or runSome(): the service thread. Requests go from there to the
/// Controller, whose thread answers them straight to the client's socket.
class ServerService : public RpcConnection::Owner, public std::enable_shared_from_this<ServerService> {
public:
    struct Settings {
        Server::ConnectionMode mode = Server::SINGLE_CONNECTION;
        bool outputToClients = true;
        bool listed = true;
        bool threaded = true;
        std::string name;
        std::string clientAddress;
        unsigned port = 0;
        int portRange = -1;
        ServerLimits limits;
        std::function<void()> abortCallback;
        std::function<Properties()> billSoFar;
        RollCallDesk::Callback rollCall;
        std::map<std::string, RollCallDesk::Callback> slowMethods; ///< by name, for example "server.live"
    };

    explicit ServerService(Settings settings);
    ServerService(const ServerService&) = delete;
    ServerService& operator=(const ServerService&) = delete;
    ~ServerService() override;

    /// Listens, writes the session record, takes over std::cout. The thread that runs the commands.
    /// @throw NonRecoverableError when no port can be had
    void open();
    /// Gives std::cout back. The same thread.
    void releaseConsole();

    /// Serves until the end.
    void run();
    /// Waits for something to do and does it. @return false at the end
    bool runSome();
    /// Does what is to be done now, for a thread that runs a command and the service.
    void serveMeanwhile();

    // ---- Any thread.
    void stop();
    /// No request that is still unanswered will be answered any more.
    void expectNoAnswers();
    bool isRunning() const { return _running; }
    bool stopRequested() const { return _stopRequested; }
    unsigned getPort() const { return _port; }
    const std::string& getName() const { return _settings.name; }
    void notify(const std::string& method, const Properties& params);
    void notifyAbort(const Properties& reason);
    void tellClients(const std::string& text);
    void finishRollCalls();
    void flushNotifies();

private:
    // Told by the connections.
    void onLine(RpcConnection& connection, std::string_view line) override;
    void onTooLong(RpcConnection& connection) override;
    void onClosed(RpcConnection& connection, const std::string& reason, bool regular) override;
    void onSupervisionNeeded() override;

    bool serveOne(bool wait);
    void listen();
    void accept(std::unique_ptr<RpcSocket> socket);
    void supervise();
    void letOneGoOn(const std::vector<ServerClients::Connection>& connections);
    void serve(RpcConnection& connection, const RpcMessage& message);
    void greet(RpcConnection& connection, const RpcMessage& message);
    void admit(RpcConnection& connection, const RpcMessage& message, const std::string& proof);
    void runCommand(RpcConnection& connection, const RpcMessage& message);
    std::shared_ptr<CommandDeadline> takeDeadline(RpcConnection& connection, const std::string& command);
    void onCommandDone(RpcConnection& connection, const std::string& id, const Controller::Outcome& outcome);
    std::string boundedAnswer(const RpcConnection& connection, const std::string& id, std::string line) const;
    /// The server's own methods. They are answered at once, also while a command runs.
    std::string callMethod(const std::string& method, const Properties& params, RpcConnection& connection);
    /// A request that is answered later.
    struct Asker {
        std::shared_ptr<RpcConnection> connection;
        std::string id;
    };
    void answer(const Asker& asker, const Properties& result) const;
    bool callSlowMethod(RpcConnection& connection, const RpcMessage& message, const Properties& params);
    void tellWhere(const Asker& asker, const Properties& params);
    void deliver(const Asker& asker, const RollCallDesk::Answer& answer);
    void forceEnd(const Asker& asker);
    static void setDeadline(RpcConnection& connection, const Properties& params);
    Properties getStatus() const;
    Properties describeRunning() const;
    void assertCanAbort() const;
    void abort(const std::string& reason);
    void refuse(RpcConnection& connection, const std::string& id, const RpcFault& fault,
                std::string_view data = {});
    void warn(const OS::Log::Context& context, const RpcConnection& connection, const std::string& kind,
              const std::string& text);

    void publishRecord();
    void onConsoleText();
    void drainConsole();
    void reviveConsole();
    void beginStop();
    void endWhenAnswered();
    void endConnections();

    const Settings _settings;
    const SessionKey _key = SessionKey::generate();
    const std::chrono::steady_clock::time_point _began = std::chrono::steady_clock::now();
    struct Loop;
    std::shared_ptr<asio::io_context> _context;
    std::unique_ptr<Loop> _loop; ///< what serves to wait: timer and work guard
    std::unique_ptr<RpcListener> _listener;
    RollCallDesk _rollCalls;
    std::map<std::string, std::unique_ptr<RollCallDesk>> _slowMethods;
    ForcedEnd _forcedEnds;
    std::vector<std::weak_ptr<CommandDeadline>> _deadlines; ///< of the commands queued and at work
    const std::shared_ptr<RequestBudget> _budget;
    ServerClients _clients;
    RateLimitedLog _log;
    std::mutex _consoleMutex; ///< guards the pointer: the console is released while others may still drain it
    std::unique_ptr<ConsoleRelay> _console;
    std::atomic<bool> _running{false};
    std::atomic<bool> _stopRequested{false};
    std::atomic<bool> _abortTold{false};
    std::atomic<std::size_t> _unanswered{0};
    std::atomic<unsigned> _port{0};
    bool _stopping = false;
    bool _ending = false;
    bool _expectsAnswers = true;
    bool _supervising = false;
};
