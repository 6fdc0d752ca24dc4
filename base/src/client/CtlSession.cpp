#include "client/CtlSession.h"

#include "client/CtlConsole.h"

#include "kernel/Properties.h"
#include "kernel/server/SessionLocator.h"

#include "platform/Host.h"
#include "platform/Io.h"
#include "platform/Process.h"
#include "platform/StringHelper.h"
#include "platform/System.h"
#include "platform/Time.h"

#include <algorithm>
#include <cmath>

namespace {

constexpr std::chrono::milliseconds CONNECT_TIME{10000};
constexpr std::chrono::milliseconds CANCEL_TIME{3000};
constexpr double RETRY_PAUSE = 0.2; ///< [s]

/// A session is called by its full name, its file's name with or without extension, or its process number.
bool isCalled(const SessionRecord& record, const std::string& name) {
    const std::string file = record.name.substr(record.name.rfind('/') + 1);
    return name == record.name || name == file || name == file.substr(0, file.rfind('.')) ||
           name == std::to_string(record.pid);
}

std::string clientName() {
    return Platform::system().getUserName() + "@" + Platform::io().getHostName() + " (orvexctl, process " +
           std::to_string(Platform::process().getPid()) + ")";
}

std::vector<CommandWords::KeyType> keysOf(const Properties& command, const std::string& list) {
    std::vector<Properties> descriptions;
    command.get(list, descriptions);
    std::vector<CommandWords::KeyType> keys;
    keys.reserve(descriptions.size());
    for (const Properties& key : descriptions)
        keys.push_back({key.getString("name"), key.getString("type")});
    return keys;
}

} // namespace

SessionRecord CtlSession::choose() const {
    if (!_options.keyFile.empty())
        return SessionLocator::readRecord(StringHelper::toWString(_options.keyFile));
    std::vector<std::string> ignored;
    std::vector<SessionRecord> sessions = SessionLocator::getSingleton().findSessions(&ignored);
    std::string wanted;
    if (!_options.session.empty()) {
        std::erase_if(sessions, [&](const SessionRecord& each) { return !isCalled(each, _options.session); });
        wanted += " called " + _options.session;
    }
    if (!_options.host.empty()) {
        const OS::Io::Host host(_options.host);
        std::erase_if(sessions, [&](const SessionRecord& each) { return OS::Io::Host(each.host) != host; });
        wanted += " on host " + _options.host;
    }
    if (_options.port != 0) {
        std::erase_if(sessions, [&](const SessionRecord& each) { return each.port != _options.port; });
        wanted += " at port " + std::to_string(_options.port);
    }
    if (wanted.empty()) {
        std::erase_if(sessions,
                      [](const SessionRecord& each) { return !each.isOnThisHost() || each.port == 0; });
        wanted = " on this host";
    }
    if (sessions.empty()) {
        for (const std::string& reason : ignored)
            wanted += "\nIgnored: " + reason;
        throw RpcClientError(RpcClientError::CANNOT_CONNECT,
                             "There is no session of user " + Platform::system().getUserName() + wanted);
    }
    return sessions.front();
}

/// Behind the loopback address of another host's record nobody answers, or somebody else.
void CtlSession::refuseForeignLoopback() const {
    const bool toItsHost = _options.host.empty() || OS::Io::Host(_options.host) == OS::Io::Host(_record.host);
    if (_record.isOnThisHost() || !_record.isLoopback() || !toItsHost)
        return;
    throw RpcClientError(RpcClientError::CANNOT_CONNECT,
                         "The session " + _record.name + " takes connections from its own host " +
                             _record.host + " only: run \"ssh " + _record.host +
                             " orvexctl ...\", or start the server with \"-xclientaddr " +
                             Platform::io().getHostName() + "\"");
}

/// The address of the chosen session.
RpcClient::Target CtlSession::locate() const {
    if (_record.port == 0 && _options.port == 0)
        throw RpcClientError(RpcClientError::CANNOT_CONNECT,
                             "The session " + _record.name + " takes no connections");
    refuseForeignLoopback();
    std::vector<std::string> addresses;
    addresses.push_back(_options.host.empty() ? _record.address : _options.host);
    if (_options.host.empty() && _record.isOnThisHost() && !_record.isLoopback())
        addresses.push_back("127.0.0.1");
    return {addresses, _options.port != 0 ? _options.port : _record.port,
            SessionKey::fromHex(_record.key).value()};
}

void CtlSession::tryToConnect(SessionHandshake::Access access) {
    try {
        _record = choose();
    } catch (const InputError& error) {
        throw RpcClientError(RpcClientError::CANNOT_CONNECT, error.what());
    }
    const RpcClient::Target target = locate();
    try {
        _client.connect(target, access, clientName(), _options.timeout.value_or(CONNECT_TIME));
    } catch (const RpcClientError& error) {
        if (_record.isVisible() || error.getTrouble() != RpcClientError::CANNOT_CONNECT)
            throw;
        throw RpcClientError(error.getTrouble(),
                             error.what() +
                                 std::string("; whether this server still runs can't be seen from here, "
                                             "its record is ") +
                                 StringHelper::toString(_record.path));
    }
}

void CtlSession::connect(SessionHandshake::Access access) {
    _client.setNotificationCallback(
        [this](const std::string& method, std::string_view params) { onNotification(method, params); });
    try {
        tryToConnect(access);
    } catch (const RpcClientError& error) {
        if (error.getTrouble() == RpcClientError::TIMED_OUT)
            throw;
        Platform::time().sleep(RETRY_PAUSE);
        tryToConnect(access);
    }
}

std::string CtlSession::cancel(const std::string& command) const {
    try {
        RpcClient control;
        control.connect(locate(), SessionHandshake::Access::CONTROL, clientName(), CANCEL_TIME);
        const RpcClient::Reply reply = control.call("server.status", "{}", CANCEL_TIME);
        const Properties status{std::string_view(reply.failed ? "{}" : reply.result)};
        if (!status.hasName("running"))
            return command + " isn't at work";
        const Properties running = status.getProperties("running");
        if (running.getString("client") != clientName())
            return command + " waits for the end of " + running.getString("command") + " of " +
                   running.getString("client");
        const RpcClient::Reply answer = control.call("server.cancel", "{}", CANCEL_TIME);
        const bool cancelled =
            !answer.failed && Properties(std::string_view(answer.result)).getBool("cancelled");
        return command + (cancelled ? " is asked to end early" : " can't be cancelled at this moment");
    } catch (const Error& error) {
        return std::string("The server can't be asked to cancel: ") + error.what();
    }
}

const CtlSession::Help& CtlSession::getHelp(const std::string& command) {
    const auto known = _help.find(command);
    if (known != _help.end())
        return known->second;
    Properties params;
    params.set("name", command);
    const RpcClient::Reply reply = _client.call("server.listCommands", params.toString(), CONNECT_TIME);
    Help& help = _help[command];
    if (reply.failed)
        return help;
    const Properties result{std::string_view(reply.result)};
    if (result.hasName("nearest"))
        help.nearest = result.getString("nearest");
    std::vector<Properties> commands;
    result.get("commands", commands);
    if (commands.empty())
        return help;
    help.known = true;
    help.json = commands.front().toString();
    help.arguments = keysOf(commands.front(), "arguments");
    help.results = keysOf(commands.front(), "results");
    return help;
}

std::vector<std::string> CtlSession::getCommandNames() {
    const RpcClient::Reply reply = _client.call("server.listCommands", "{}", CONNECT_TIME);
    std::vector<std::string> names;
    if (reply.failed)
        return names;
    std::vector<Properties> commands;
    Properties(std::string_view(reply.result)).get("commands", commands);
    for (const Properties& command : commands)
        names.push_back(command.getString("name"));
    return names;
}

void CtlSession::forgetHelp() {
    _help.clear();
}

/// For people who wait: a line when a task has come a tenth further.
void CtlSession::showProgress(const Properties& progress) {
    const std::string task = progress.getString("Task");
    const long percent = std::lround(100.0 * progress.getReal("Progress"));
    const std::string state = progress.getString("State");
    if (task == _shownTask && state == _shownState && percent < _shownPercent + 10)
        return;
    _shownTask = task;
    _shownState = state;
    _shownPercent = percent;
    const std::string message = progress.getString("Message");
    _console.showProgress("[" + task + ": " + std::to_string(percent) + " % " + state +
                          (message.empty() ? "" : ", ") + message + "]");
}

void CtlSession::onNotification(const std::string& method, std::string_view params) {
    const Properties values(params);
    if (method == "server.abort")
        _console.tell("The job aborts: " +
                      (values.hasName("Processor")
                           ? "Rank " + std::to_string(values.getInt("Processor")) + ": "
                           : std::string()) +
                      (values.hasName("Message") ? values.getString("Message") : "no reason given"));
    else if (method == "server.notice")
        _console.tell(values.getString("text"));
    else if (_options.quiet)
        return;
    else if (method == "server.console")
        _console.show(values.getString("text"), _options.json);
    else if (method == "server.consoleLost")
        _console.show("[" + std::to_string(values.getLong("lines")) + " lines of output were lost]\n",
                      _options.json);
    else if (method == "server.progress")
        showProgress(values);
    else if (method == "server.stopping")
        _console.show("[the server stops]\n", _options.json);
}
