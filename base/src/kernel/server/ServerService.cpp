#include "kernel/server/ServerService.h"

#include "kernel/BillBook.h"
#include "kernel/Command.h"
#include "kernel/Controller.h"
#include "kernel/OrvexVersion.h"
#include "kernel/Properties.h"
#include "kernel/Raise.h"
#include "kernel/Task.h"
#include "kernel/server/CommandDeadline.h"
#include "kernel/server/CommandDirectory.h"
#include "kernel/server/RpcListener.h"
#include "kernel/server/RpcMessage.h"
#include "kernel/server/RpcSocket.h"
#include "kernel/server/SessionHandshake.h"
#include "kernel/server/SessionLocator.h"

#include "platform/Io.h"
#include "platform/Log.h"
#include "platform/Process.h"
#include "platform/StringHelper.h"

#include <asio/executor_work_guard.hpp>
#include <asio/io_context.hpp>
#include <asio/post.hpp>
#include <asio/steady_timer.hpp>

#include <algorithm>
#include <iostream>

namespace {

constexpr std::chrono::milliseconds SUPERVISION_PERIOD{50};
/// A stop refuses the requests that have come by then in words, not by the end of the connection.
constexpr std::chrono::milliseconds LAST_CALL{20};
constexpr double MAX_DEADLINE = 1e8; ///< [s]
constexpr std::string_view OWN_METHODS = "server.";

double secondsSinceEpoch(std::chrono::system_clock::time_point time) {
    return std::chrono::duration<double>(time.time_since_epoch()).count();
}

double secondsSince(std::chrono::steady_clock::time_point time) {
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - time).count();
}

const char* nameOf(Server::ConnectionMode mode) {
    return mode == Server::COLLABORATIVE ? "collaborative" : "single";
}

/// The methods that end the command at work before its time.
std::vector<std::string> listWaysToEnd() {
    std::vector<std::string> methods{"server.abort"};
    if (Task::getCurrent())
        methods.insert(methods.begin(), "server.cancel");
    return methods;
}

RpcFault::Code codeOf(Controller::Outcome::Status status) {
    switch (status) {
    case Controller::Outcome::UNKNOWN_COMMAND:
        return RpcFault::METHOD_NOT_FOUND;
    case Controller::Outcome::WRONG_ARGUMENTS:
        return RpcFault::INVALID_PARAMS;
    case Controller::Outcome::STOPPING:
        return RpcFault::STOPPING;
    case Controller::Outcome::DONE:
    case Controller::Outcome::FAILED:
        break;
    }
    return RpcFault::COMMAND_FAILED;
}

/// The answer to a command: its results, or its error with all else that the error tells.
std::string answerOf(const std::string& id, const Controller::Outcome& outcome, bool withBill) {
    const std::string bill =
        withBill && outcome.bill != Properties() ? outcome.bill.toString() : std::string();
    if (!outcome.hasFailed())
        return RpcMessage::answer(id, outcome.response.toString(), bill);
    Properties data = outcome.response;
    data.remove(Error::MESSAGE_TAG);
    return RpcMessage::failure(id, {codeOf(outcome.status), Error::getMessage(outcome.response)},
                               data.toString(), bill);
}

std::string noticeOf(const std::string& text) {
    return RpcMessage::notification("server.notice", "{\"text\":" + RpcMessage::quote(text) + "}");
}

} // namespace

struct ServerService::Loop {
    explicit Loop(asio::io_context& context) : guard(context.get_executor()), timer(context), end(context) {}

    asio::executor_work_guard<asio::io_context::executor_type> guard;
    asio::steady_timer timer; ///< of the supervision
    asio::steady_timer end;   ///< of the last requests
};

ServerService::ServerService(Settings settings)
    : _settings(std::move(settings)), _context(std::make_shared<asio::io_context>(1)),
      _loop(std::make_unique<Loop>(*_context)),
      _rollCalls(_context, _settings.rollCall, _settings.limits.rollCallTime),
      _forcedEnds(_context, _rollCalls, _settings.limits.forceTime),
      _budget(std::make_shared<RequestBudget>(_settings.limits.requestBytes)) {
    for (const auto& [method, callback] : _settings.slowMethods)
        _slowMethods[method] =
            std::make_unique<RollCallDesk>(_context, callback, _settings.limits.rollCallTime);
}

ServerService::~ServerService() = default;

// ---- Beginning and end.

void ServerService::open() {
    if (_settings.mode == Server::NO_CONNECTION) {
        try {
            publishRecord();
        } catch (const SystemError& error) { // without connections the record only informs
            OS::Log::instance("Default").warning("ServerService::open", "@0@", error.what());
        }
    } else {
        _listener = std::make_unique<RpcListener>(_context);
        _listener->open(_settings.clientAddress, _settings.port, _settings.portRange);
        _port = _listener->getPort();
        publishRecord();
        listen();
        if (_settings.outputToClients)
            _console = std::make_unique<ConsoleRelay>(std::cout, _settings.limits.consoleBacklog, _clients,
                                                      [this] { onConsoleText(); });
    }
    _running = true;
    if (_stopRequested)
        asio::post(*_context, [this] { beginStop(); });
}

void ServerService::listen() {
    _listener->start([this](std::unique_ptr<RpcSocket> socket) { accept(std::move(socket)); },
                     [this](std::unique_ptr<RpcSocket> socket, const std::string& address) {
                         const RpcFault fault{RpcFault::NOT_AUTHENTICATED,
                                              "This server takes no connections from " + address};
                         const std::string line = RpcMessage::failure({}, fault);
                         asio::error_code ignored; // a courtesy: the connection ends either way
                         socket->socket.write_some(asio::buffer(line), ignored);
                         _log.warn("ServerService::listen", "Connection refused",
                                   address + " isn't the client " + _settings.clientAddress);
                     },
                     [this](const std::string& text) {
                         _log.warn("ServerService::listen", "A client could not be let in", text);
                     });
}

void ServerService::publishRecord() {
    SessionRecord record;
    record.name = _settings.name;
    record.address = _settings.clientAddress.empty() ? "127.0.0.1" : Platform::io().getHostName();
    record.port = _port;
    record.product = OrvexVersion::getVersionedProductName();
    record.listed = _settings.listed;
    record.key = _key.toHex();
    SessionLocator::getSingleton().publish(record);
}

void ServerService::releaseConsole() {
    const std::lock_guard lock(_consoleMutex);
    _console.reset();
}

void ServerService::finishRollCalls() {
    _rollCalls.finish();
    for (const auto& [method, desk] : _slowMethods)
        desk->finish();
}

void ServerService::run() {
    while (runSome()) {
    }
}

bool ServerService::runSome() {
    if (serveOne(true))
        return true;
    _running = false;
    return false;
}

void ServerService::serveMeanwhile() {
    constexpr int MAX_EVENTS = 64; // clients that never stop asking don't keep the command from its work
    for (int i = 0; i < MAX_EVENTS && serveOne(false); ++i) {
    }
}

/// @return false when there is nothing to do, with `wait`: and never will be
bool ServerService::serveOne(bool wait) {
    try {
        return (wait ? _context->run_one() : _context->poll_one()) > 0;
    } catch (const std::exception& error) {
        // For example out of memory: the fault of one client must not end the others.
        _log.warn("ServerService::serveOne", "An event couldn't be served", error.what());
        return true;
    }
}

void ServerService::stop() {
    if (_stopRequested.exchange(true))
        return;
    Controller::getSingleton().stopProcessing();
    if (_running)
        asio::post(*_context, [this] { beginStop(); });
}

void ServerService::expectNoAnswers() {
    asio::post(*_context, [this] {
        _expectsAnswers = false;
        endWhenAnswered();
    });
}

void ServerService::beginStop() {
    if (_stopping)
        return;
    _stopping = true; // those who ask and steer are let in until the last answer
    if (!_abortTold)
        notify("server.stopping", Properties());
    endWhenAnswered();
}

void ServerService::endWhenAnswered() {
    if (!_stopping || (_expectsAnswers && _unanswered > 0))
        return;
    _loop->end.expires_after(LAST_CALL);
    _loop->end.async_wait([this](const asio::error_code&) { endConnections(); });
}

void ServerService::endConnections() {
    if (_ending)
        return;
    _ending = true;
    if (_listener)
        _listener->close();
    _port = 0;
    drainConsole();
    _rollCalls.close();
    for (const auto& [method, desk] : _slowMethods)
        desk->close();
    for (const ServerClients::Connection& connection : _clients.getAll()) {
        if (connection->getPeer().authenticated)
            connection->endWith({}, "the server has stopped");
        else
            connection->close("the server has stopped");
    }
    SessionLocator::getSingleton().withdraw();
    _loop->guard.reset(); // the loop ends with the last connection
}

void ServerService::abort(const std::string& reason) {
    OS::Log::instance("Default").error("ServerService::abort", "@0@", reason);
    Properties params;
    params.set(Error::MESSAGE_TAG, reason);
    notifyAbort(params);
    SessionLocator::cleanup();
    const std::function<void()>& callback =
        _settings.abortCallback ? _settings.abortCallback : SessionLocator::getSingleton().getAbortCallback();
    if (callback)
        callback();
}

// ---- Connections.

void ServerService::accept(std::unique_ptr<RpcSocket> socket) {
    auto connection = std::make_shared<RpcConnection>(std::move(socket), _settings.limits, _budget, *this);
    if (_clients.getNumberStrangers() >= _settings.limits.strangers) {
        const ServerClients::Connection oldest = _clients.getOldestStranger();
        const char* const reason =
            "too many connections without a proof of the session key, this was the oldest";
        warn("ServerService::accept", *oldest, "Connection dropped", reason);
        oldest->close(reason);
    }
    SessionHandshake::Greeting greeting;
    greeting.protocol = SessionRecord::PROTOCOL_VERSION;
    greeting.product = OrvexVersion::getVersionedProductName();
    greeting.nonce = connection->getPeer().nonce = SessionKey::makeNonce();
    _clients.add(connection);
    connection->send(greeting.toLine());
    connection->start();
    onSupervisionNeeded();
}

void ServerService::onClosed(RpcConnection& connection, const std::string& reason, bool regular) {
    if (!regular)
        warn("ServerService::onClosed", connection, "Connection cut", reason);
    else
        OS::Log::instance("Default").info("ServerService::onClosed", "@0@ (@1@): @2@",
                                          connection.getAddress(), connection.getPeer().client, reason);
    _clients.remove(connection);
    if (_console)
        _console->noteClients();
}

void ServerService::onTooLong(RpcConnection& connection) {
    const RpcFault fault{
        RpcFault::INVALID_REQUEST,
        "The line is too long, beyond " + std::to_string(connection.getLineLimit()) + " bytes" +
            (connection.getPeer().authenticated ? "" : ", the limit before the session key is proved")};
    warn("ServerService::onTooLong", connection, "Request refused", fault.message);
    connection.endWith(RpcMessage::failure({}, fault), fault.message);
}

void ServerService::onSupervisionNeeded() {
    if (_supervising)
        return;
    _supervising = true;
    _loop->timer.expires_after(SUPERVISION_PERIOD);
    _loop->timer.async_wait([this](const asio::error_code&) { supervise(); });
}

void ServerService::supervise() {
    _supervising = false;
    const RpcConnection::Clock::time_point now = RpcConnection::Clock::now();
    bool more = false;
    const std::vector<ServerClients::Connection> connections = _clients.getAll();
    for (const ServerClients::Connection& connection : connections) {
        const RpcConnection::Peer& peer = connection->getPeer();
        const bool stranger = !peer.authenticated && connection->isOpen();
        if (stranger && now - peer.connected > _settings.limits.handshakeTime) {
            const RpcFault fault{RpcFault::NOT_AUTHENTICATED,
                                 "The session key wasn't proved within " +
                                     std::to_string(_settings.limits.handshakeTime.count()) + " ms"};
            warn("ServerService::supervise", *connection, "Handshake timed out", fault.message);
            connection->endWith(RpcMessage::failure({}, fault), fault.message);
        }
        more = connection->supervise(now) || stranger || more;
    }
    letOneGoOn(connections);
    if (more)
        onSupervisionNeeded();
}

/// When the budget is full of requests that are only partly there, no answer makes room: then the one that is
/// farthest is read to its end.
void ServerService::letOneGoOn(const std::vector<ServerClients::Connection>& connections) {
    if (!_budget->isFull() || _budget->hasQueued())
        return;
    ServerClients::Connection farthest;
    for (const ServerClients::Connection& each : connections) {
        if (each->isBeyondBudget())
            return;
        if (each->getHeldBack() > (farthest ? farthest->getHeldBack() : 0))
            farthest = each;
    }
    if (farthest)
        farthest->goOnBeyondBudget();
}

void ServerService::warn(const OS::Log::Context& context, const RpcConnection& connection,
                         const std::string& kind, const std::string& text) {
    const std::string& client = connection.getPeer().client;
    _log.warn(context, kind,
              connection.getAddress() + (client.empty() ? "" : " (" + client + ")") + ": " + text);
}

void ServerService::refuse(RpcConnection& connection, const std::string& id, const RpcFault& fault,
                           std::string_view data) {
    warn("ServerService::refuse", connection, "Request refused", fault.message);
    const std::string line = RpcMessage::failure(id, fault, data);
    if (connection.getPeer().authenticated)
        connection.send(line);
    else
        connection.endWith(line, fault.message);
}

// ---- Requests.

void ServerService::onLine(RpcConnection& connection, std::string_view line) {
    if (line.find_first_not_of(" \t\r") == std::string_view::npos)
        return;
    RpcMessage message;
    try {
        if (const std::optional<RpcFault> fault = message.parse(line))
            refuse(connection, message.id, *fault);
        else if (!message.isRequest())
            refuse(connection, message.id,
                   {RpcFault::INVALID_REQUEST, "The server asks nothing, so it expects no answer"});
        else if (!connection.getPeer().authenticated)
            greet(connection, message);
        else
            serve(connection, message);
    } catch (const std::exception& error) { // out of memory for one client must not end the others
        refuse(connection, message.id, {RpcFault::INTERNAL_ERROR, error.what()});
    }
}

void ServerService::greet(RpcConnection& connection, const RpcMessage& message) {
    SessionHandshake::Admission admission;
    if (const auto fault = SessionHandshake::admit(message, _key, connection.getPeer().nonce, admission)) {
        refuse(connection, message.id, *fault);
        return;
    }
    const bool control = admission.access == SessionHandshake::Access::CONTROL;
    const ServerClients::Connection other = _clients.getCommandClient();
    if (_stopping && !control)
        refuse(connection, message.id,
               {RpcFault::STOPPING, "The server stops and takes no more clients that run commands"},
               getStatus().toString());
    else if (_settings.mode == Server::SINGLE_CONNECTION && !control && other)
        refuse(connection, message.id,
               {RpcFault::BUSY,
                other->getPeer().client + " is connected, and this session serves one client at a time"},
               getStatus().toString());
    else if (_clients.getNumberClients() >= _settings.limits.clients)
        refuse(connection, message.id,
               {RpcFault::BUSY, "This session serves " + std::to_string(_settings.limits.clients) +
                                    " clients already, its limit"},
               getStatus().toString());
    else {
        _clients.admit(connection, control, admission.client);
        if (_console)
            _console->noteClients();
        Properties result;
        result.set("proof", admission.proof);
        result.set("session", _settings.name);
        result.set("mode", nameOf(_settings.mode));
        connection.send(RpcMessage::answer(message.id, result.toString()));
    }
}

void ServerService::serve(RpcConnection& connection, const RpcMessage& message) {
    if (!message.method.starts_with(OWN_METHODS)) {
        runCommand(connection, message);
        return;
    }
    try {
        const Properties params(message.params.empty() ? std::string_view("{}") : message.params);
        if (callSlowMethod(connection, message, params))
            return;
        const std::string result = callMethod(message.method, params, connection);
        if (result.empty())
            refuse(connection, message.id,
                   {RpcFault::METHOD_NOT_FOUND, "The server has no method \"" + message.method + "\""});
        else if (!message.id.empty())
            connection.send(RpcMessage::answer(message.id, result));
    } catch (const RecoverableError& error) {
        refuse(connection, message.id, {RpcFault::INVALID_PARAMS, error.what()});
    }
}

void ServerService::runCommand(RpcConnection& connection, const RpcMessage& message) {
    RpcFault fault{RpcFault::INVALID_PARAMS, {}};
    Properties command;
    try {
        if (!message.params.empty())
            command = Properties(message.params);
        if (command.hasName(Command::COMMAND_TAG))
            fault.message = std::string("The argument \"") + Command::COMMAND_TAG +
                            "\" is taken: it holds the method's name";
        command.set(Command::COMMAND_TAG, message.method);
    } catch (const RecoverableError& error) {
        fault.message = error.what();
    }
    if (connection.getPeer().control)
        fault = {RpcFault::INVALID_REQUEST, "This connection is for control: it runs no commands"};
    else if (_stopping)
        fault = {RpcFault::STOPPING, "The server stops and takes no more commands"};
    if (!fault.message.empty()) {
        refuse(connection, message.id, fault);
        return;
    }
    const auto held = connection.beginRequest(message.params.size());
    ++_unanswered;
    const std::shared_ptr<CommandDeadline> deadline = takeDeadline(connection, message.method);
    const auto done = [self = shared_from_this(), to = connection.shared_from_this(), id = message.id, held,
                       deadline](Controller::Outcome outcome) {
        if (deadline) {
            deadline->end();
            if (outcome.hasFailed())
                deadline->explain(outcome.response);
        }
        self->onCommandDone(*to, id, outcome);
    };
    const auto begin = deadline ? std::function<void()>([deadline] { deadline->begin(); }) : nullptr;
    try {
        Controller::getSingleton().enqueue({std::move(command), connection.getPeer().client, done, begin});
    } catch (const std::exception& error) {
        done({Controller::Outcome::FAILED, SystemError(error.what()).toResponse()});
    }
}

/// The limit that the client has set for this command, null: none.
std::shared_ptr<CommandDeadline> ServerService::takeDeadline(RpcConnection& connection,
                                                             const std::string& command) {
    const std::optional<double> seconds = std::exchange(connection.getPeer().deadline, std::nullopt);
    if (!seconds)
        return nullptr;
    const auto tell = [weak = connection.weak_from_this()](const std::string& text) {
        OS::Log::instance("Default").warning("ServerService::takeDeadline", "@0@", text);
        if (const auto client = weak.lock())
            client->send(noticeOf(text));
    };
    auto deadline =
        std::make_shared<CommandDeadline>(_context, *seconds, command, _settings.limits.deadlineTime, tell);
    std::erase_if(_deadlines, [](const auto& each) { return each.expired(); });
    _deadlines.push_back(deadline);
    return deadline;
}

void ServerService::onCommandDone(RpcConnection& connection, const std::string& id,
                                  const Controller::Outcome& outcome) {
    std::string line;
    try {
        reviveConsole();
        drainConsole(); // what the command printed comes before its answer
        if (!id.empty())
            line = boundedAnswer(connection, id, answerOf(id, outcome, connection.getPeer().wantsBills));
    } catch (const std::exception& error) { // too large for the memory that is left
        line = RpcMessage::failure(
            id, {RpcFault::INTERNAL_ERROR, std::string("The response is lost: ") + error.what()});
    }
    connection.finishRequest(line);
    if (--_unanswered == 0 && _stopRequested)
        asio::post(*_context, [this] { endWhenAnswered(); });
}

/// The answer, or when the client has too much to read, an error in its place.
std::string ServerService::boundedAnswer(const RpcConnection& connection, const std::string& id,
                                         std::string line) const {
    const std::size_t limit = _settings.limits.responseBytes;
    const std::size_t unread = connection.getUnsent();
    if (line.size() <= limit && unread <= limit - line.size())
        return line;
    return RpcMessage::failure(
        id, {RpcFault::INTERNAL_ERROR,
             "The response is lost: its " + std::to_string(line.size()) + " bytes" +
                 (unread > 0 ? " and " + std::to_string(unread) + " of the answers before it, unread," : "") +
                 " are more than the limit of " + std::to_string(limit)});
}

std::string ServerService::callMethod(const std::string& method, const Properties& params,
                                      RpcConnection& connection) {
    const std::string& client = connection.getPeer().client;
    if (method == "server.ping")
        return Properties().toString();
    if (method == "server.status")
        return getStatus().toString();
    if (method == "server.listCommands")
        return CommandDirectory::describe(params).toString();
    if (method == "server.cancel") {
        Properties result;
        result.set("cancelled", Task::cancelCurrent());
        return result.toString();
    }
    if (method == "server.deadline") {
        setDeadline(connection, params);
        return Properties().toString();
    }
    if (method == "server.bill") {
        connection.getPeer().wantsBills = params.getBool("on");
        return Properties().toString();
    }
    if (method == "server.bills") {
        Properties result;
        result.set("bills",
                   BillBook::getSingleton().getLatest(params.hasName("count") ? params.getUnsignedInt("count")
                                                                              : BillBook::MAX_BILLS));
        return result.toString();
    }
    if (method == "server.stop") {
        OS::Log::instance("Default").info("ServerService::callMethod", "@0@ asked the server to stop",
                                          client);
        Properties result = getStatus();
        result.set("endedBy", result.hasName("running") ? listWaysToEnd() : std::vector<std::string>());
        // Last, so that the answer goes out before the news of the stop.
        asio::post(*_context, [this] { stop(); });
        return result.toString();
    }
    if (method == "server.abort") {
        const std::string reason =
            params.hasName("reason") ? ": " + params.getString("reason") : std::string();
        assertCanAbort();
        asio::post(*_context, [this, text = client + " demanded the abort" + reason] { abort(text); });
        return Properties().toString();
    }
    return {};
}

/// Methods that are answered when others have answered: the ranks, or a task that may look for a cancel.
/// @return false when it is none of them
bool ServerService::callSlowMethod(RpcConnection& connection, const RpcMessage& message,
                                   const Properties& params) {
    const Asker asker{connection.shared_from_this(), message.id};
    if (message.method == "server.where")
        tellWhere(asker, params);
    else if (message.method == "server.cancel" && params.getOr("force", false))
        forceEnd(asker);
    else if (const auto found = _slowMethods.find(message.method); found != _slowMethods.end())
        found->second->ask(params,
                           [this, asker](const RollCallDesk::Answer& answer) { deliver(asker, answer); });
    else
        return false;
    return true;
}

void ServerService::tellWhere(const Asker& asker, const Properties& params) {
    Properties request;
    if (params.hasName("rank")) {
        const unsigned rank = params.getUnsignedInt("rank");
        const unsigned size = SessionLocator::getSingleton().getNumberProcesses();
        if (rank >= std::max(size, 1U))
            raise(InputError(
                "There is no rank " + std::to_string(rank) +
                (size > 1 ? ": the ranks are 0 to " + std::to_string(size - 1) : ": the process is serial")));
        request.set("rank", rank);
    }
    _rollCalls.ask(request, [this, asker](const RollCallDesk::Answer& answer) { deliver(asker, answer); });
}

void ServerService::deliver(const Asker& asker, const RollCallDesk::Answer& answer) {
    if (!answer.failure.empty())
        refuse(*asker.connection, asker.id, {RpcFault::COMMAND_FAILED, answer.failure});
    else
        this->answer(asker, answer.result);
}

void ServerService::answer(const Asker& asker, const Properties& result) const {
    if (!asker.id.empty())
        asker.connection->send(
            boundedAnswer(*asker.connection, asker.id, RpcMessage::answer(asker.id, result.toString())));
}

void ServerService::forceEnd(const Asker& asker) {
    assertCanAbort();
    _forcedEnds.demand(asker.connection->getPeer().client, [this, asker](const ForcedEnd::Outcome& outcome) {
        answer(asker, outcome.result);
        if (!outcome.reason.empty() && !_ending)
            asio::post(*_context, [this, reason = outcome.reason] { abort(reason); });
    });
}

void ServerService::setDeadline(RpcConnection& connection, const Properties& params) {
    if (connection.getPeer().control)
        raise(InputError("This connection is for control: it runs no commands"));
    const double seconds = params.getReal("seconds");
    if (!(seconds > 0.0 && seconds <= MAX_DEADLINE))
        raise(InputError("\"seconds\" must be above 0 and at most " + std::to_string(long(MAX_DEADLINE))));
    connection.getPeer().deadline = seconds;
}

void ServerService::assertCanAbort() const {
    if (!_settings.abortCallback && !SessionLocator::getSingleton().getAbortCallback())
        raise(RecoverableError("This server has no way to abort its job"));
}

Properties ServerService::getStatus() const {
    Properties status;
    SessionLocator::getSingleton().getInfo(status);
    status.set("name", _settings.name);
    status.set("host", Platform::io().getHostName());
    status.set("pid", Platform::process().getPid());
    status.set("ranks", SessionLocator::getSingleton().getNumberProcesses());
    status.set("product", OrvexVersion::getVersionedProductName());
    status.set("uptime", secondsSince(_began));
    status.set("mode", nameOf(_settings.mode));
    status.set("stopping", _stopRequested.load());
    status.set("clients", _clients.describe());
    status.set("queued", Controller::getSingleton().getNumberQueuedCommands());
    if (const Properties running = describeRunning(); running != Properties())
        status.set("running", running);
    return status;
}

/// The command at work with what its task told last; empty when there is none.
Properties ServerService::describeRunning() const {
    const auto running = Controller::getSingleton().getRunningCommand();
    Properties command;
    if (!running)
        return command;
    command.set("command", running->name);
    command.set("client", running->client);
    command.set("since", secondsSinceEpoch(running->since));
    command.set("seconds", secondsSince(running->began));
    const auto task = Task::getCurrent();
    if (task && task->thread == running->thread) {
        command.set("task", task->name);
        command.set("progress", task->progress);
        command.set("message", task->message);
    }
    if (_settings.billSoFar)
        if (const Properties bill = _settings.billSoFar(); bill != Properties())
            command.set("bill", bill);
    for (const std::weak_ptr<CommandDeadline>& each : _deadlines)
        if (const auto deadline = each.lock())
            deadline->describe(running->thread, command);
    return command;
}

// ---- Notifications.

void ServerService::notify(const std::string& method, const Properties& params) {
    drainConsole();
    _clients.sendNotice(RpcMessage::notification(method, params.toString()), 1);
}

void ServerService::notifyAbort(const Properties& reason) {
    if (_abortTold.exchange(true))
        return; // the first reason is the one that counts
    drainConsole();
    _clients.sendToAll(RpcMessage::notification("server.abort", reason.toString()));
    _clients.flush(_settings.limits.flushTime);
}

void ServerService::tellClients(const std::string& text) {
    drainConsole();
    _clients.sendToAll(noticeOf(text));
}

void ServerService::flushNotifies() {
    drainConsole();
    _clients.flush(_settings.limits.flushTime);
}

void ServerService::onConsoleText() {
    if (_settings.threaded)
        asio::post(*_context, [this] { drainConsole(); });
    else
        drainConsole(); // the one thread is at work; nobody else will
}

void ServerService::drainConsole() {
    const std::lock_guard lock(_consoleMutex);
    if (_console)
        _console->drain();
}

void ServerService::reviveConsole() {
    const std::lock_guard lock(_consoleMutex);
    if (_console)
        _console->revive();
}
