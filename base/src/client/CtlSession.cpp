#include "client/CtlSession.h"

#include "kernel/Properties.h"
#include "kernel/SessionLocator.h"

#include "platform/Host.h"
#include "platform/Io.h"
#include "platform/Process.h"
#include "platform/StringHelper.h"
#include "platform/System.h"

#include <algorithm>
#include <cmath>
#include <iostream>
#include <sstream>

namespace {

constexpr std::chrono::milliseconds CONNECT_TIME{10000};

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

} // namespace

SessionRecord CtlSession::choose() const {
    if (!_options.keyFile.empty())
        return SessionLocator::readRecord(StringHelper::toWString(_options.keyFile));
    std::vector<SessionRecord> sessions = SessionLocator::getSingleton().findSessions();
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
    if (sessions.empty())
        throw RpcClientError(RpcClientError::CANNOT_CONNECT,
                             "There is no session of user " + Platform::system().getUserName() + wanted);
    return sessions.front();
}

void CtlSession::connect(SessionHandshake::Access access) {
    try {
        _record = choose();
    } catch (const InputError& error) {
        throw RpcClientError(RpcClientError::CANNOT_CONNECT, error.what());
    }
    if (_record.port == 0 && _options.port == 0)
        throw RpcClientError(RpcClientError::CANNOT_CONNECT,
                             "The session " + _record.name + " takes no connections");
    std::vector<std::string> addresses;
    if (!_options.host.empty())
        addresses.push_back(_options.host);
    else
        addresses.push_back(_record.address);
    if (_options.host.empty() && _record.isOnThisHost() && _record.address != "127.0.0.1")
        addresses.push_back("127.0.0.1");
    const RpcClient::Target target{addresses, _options.port != 0 ? _options.port : _record.port,
                                   SessionKey::fromHex(_record.key).value()};
    _client.setNotificationCallback(
        [this](const std::string& method, std::string_view params) { onNotification(method, params); });
    _client.connect(target, access, clientName(), _options.timeout.value_or(CONNECT_TIME));
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
    std::vector<Properties> arguments;
    commands.front().get("arguments", arguments);
    for (const Properties& argument : arguments)
        help.arguments.push_back({argument.getString("name"), argument.getString("type")});
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

void CtlSession::show(const std::string& text) {
    if (beforeText)
        beforeText();
    (_options.json ? std::cerr : std::cout) << text << std::flush;
    if (afterText)
        afterText();
}

/// For people who wait: a line when a task has come a tenth further.
void CtlSession::showProgress(const Properties& progress) {
    if (!Platform::io().isTerminal(Platform::io().getDescriptor(stderr)))
        return;
    const std::string task = progress.getString("Task");
    const long percent = std::lround(100.0 * progress.getReal("Progress"));
    const std::string state = progress.getString("State");
    if (task == _shownTask && state == _shownState && percent < _shownPercent + 10)
        return;
    _shownTask = task;
    _shownState = state;
    _shownPercent = percent;
    const std::string message = progress.getString("Message");
    std::ostringstream text;
    text << "[" << task << ": " << percent << " % " << state << (message.empty() ? "" : ", ") << message
         << "]\n";
    show(text.str());
}

void CtlSession::onNotification(const std::string& method, std::string_view params) {
    const Properties values(params);
    if (method == "server.abort") {
        std::cerr << "The job aborts: "
                  << (values.hasName("Message") ? values.getString("Message") : "no reason given")
                  << std::endl;
        return;
    }
    if (_options.quiet)
        return;
    std::ostringstream text;
    if (method == "server.console")
        text << values.getString("text");
    else if (method == "server.consoleLost")
        text << "[" << values.getLong("lines") << " lines of output were lost]\n";
    else if (method == "server.progress") {
        showProgress(values);
        return;
    } else if (method == "server.stopping")
        text << "[the server stops]\n";
    show(text.str());
}
