#include "client/Ctl.h"

#include "client/CtlPrompt.h"
#include "client/ResponsePrinter.h"
#include "kernel/Error.h"
#include "kernel/Properties.h"
#include "kernel/RpcMessage.h"
#include "kernel/SessionLocator.h"

#include "platform/Io.h"
#include "platform/Process.h"
#include "platform/Time.h"

#include <cmath>
#include <cstdio>
#include <ctime>
#include <fstream>
#include <iostream>
#include <set>

namespace {

constexpr std::chrono::milliseconds ANSWER_TIME{10000}; ///< of the server's own methods
constexpr std::chrono::milliseconds STOP_TIME{30000};
constexpr std::size_t MAX_LINE = std::size_t(16) << 20; ///< of a script [bytes]

const std::set<std::string> OWN_COMMANDS{"list-sessions", "list-commands", "status",
                                         "cancel",        "stop",          "abort"};

bool isOwn(const std::string& name) {
    return OWN_COMMANDS.count(name) > 0;
}

int exitCodeOf(const RpcClientError& error) {
    switch (error.getTrouble()) {
    case RpcClientError::CANNOT_CONNECT:
        return ExitCode::CANNOT_CONNECT;
    case RpcClientError::REFUSED:
        return ExitCode::REFUSED;
    case RpcClientError::LOST:
        return ExitCode::CONNECTION_LOST;
    case RpcClientError::TIMED_OUT:
        return ExitCode::TIMED_OUT;
    }
    return ExitCode::CONNECTION_LOST;
}

std::string localTime(double secondsSinceEpoch) {
    const auto time = static_cast<std::time_t>(secondsSinceEpoch);
    std::tm parts{};
    char text[32] = "";
    if (localtime_r(&time, &parts))
        std::strftime(text, sizeof text, "%Y-%m-%d %H:%M:%S", &parts);
    return text;
}

/// As in "3 d 04:05:06".
std::string duration(double seconds) {
    const auto whole = static_cast<long>(seconds);
    char text[48];
    std::snprintf(text, sizeof text, "%02ld:%02ld:%02ld", whole / 3600 % 24, whole / 60 % 60, whole % 60);
    return (whole >= 86400 ? std::to_string(whole / 86400) + " d " : std::string()) + text;
}

std::vector<CommandWords::Word> toWords(const std::vector<std::string>& texts) {
    std::vector<CommandWords::Word> words;
    for (const std::string& text : texts)
        words.push_back({text});
    return words;
}

/// Reads a line of at most MAX_LINE bytes. @return false at the end
bool readLine(std::istream& stream, std::string& line) {
    line.clear();
    for (int c = stream.get(); c != std::istream::traits_type::eof(); c = stream.get()) {
        if (c == '\n')
            return true;
        if (line.size() == MAX_LINE)
            throw UsageError("A line of the script is longer than " + std::to_string(MAX_LINE) + " bytes");
        line += static_cast<char>(c);
    }
    return !line.empty();
}

/// A line of the keys that a command takes, "\nkey=type" each, in brackets when it may be left out.
std::string usageOf(const Properties& command) {
    std::vector<Properties> arguments;
    command.get("arguments", arguments);
    std::string usage;
    for (const Properties& argument : arguments) {
        const std::string word = argument.getString("name") + "=" + argument.getString("type");
        usage += (usage.empty() ? "\n" : " ") + (argument.getBool("required") ? word : "[" + word + "]");
    }
    return usage;
}

} // namespace

int Ctl::run() {
    try {
        return dispatch();
    } catch (const UsageError& error) {
        std::cerr << "orvexctl: " << error.what() << std::endl;
        return ExitCode::USAGE_ERROR;
    } catch (const RpcClientError& error) {
        std::cerr << "orvexctl: " << error.what() << std::endl;
        return exitCodeOf(error);
    } catch (const std::exception& error) { // an answer that isn't what the protocol says
        std::cerr << "orvexctl: " << error.what() << std::endl;
        return ExitCode::CONNECTION_LOST;
    }
}

int Ctl::dispatch() {
    const std::string first = _options.words.empty() ? std::string() : _options.words.front();
    if (first == "list-sessions") {
        if (_options.words.size() > 1)
            throw UsageError("list-sessions takes no arguments");
        return listSessions();
    }
    _session.connect(isOwn(first) ? SessionHandshake::Access::CONTROL : SessionHandshake::Access::COMMANDS);
    if (!first.empty())
        return runLine(toWords(_options.words));
    if (_options.script.empty() && Platform::io().isTerminal(Platform::io().getDescriptor(stdin)))
        return runPrompt();
    if (_options.script.empty() || _options.script == "-")
        return runScript(std::cin, "standard input");
    std::ifstream file(_options.script);
    if (!file)
        throw UsageError("The script " + _options.script + " can't be read");
    return runScript(file, _options.script);
}

int Ctl::runScript(std::istream& script, const std::string& name) {
    int result = ExitCode::SUCCESS;
    std::string line;
    for (std::size_t number = 1; readLine(script, line); ++number) {
        int code = ExitCode::SUCCESS;
        try {
            const std::vector<CommandWords::Word> words = CommandWords::split(line);
            if (!words.empty())
                code = runLine(words);
        } catch (const UsageError& error) {
            std::cerr << name << ":" << number << ": " << error.what() << std::endl;
            code = ExitCode::USAGE_ERROR;
        }
        result = result == ExitCode::SUCCESS ? code : result;
        if (result != ExitCode::SUCCESS && !_options.keepGoing)
            break;
        if (!_session.getClient().isConnected())
            break;
    }
    return result;
}

int Ctl::runPrompt() {
    CtlPrompt prompt(_session);
    int result = ExitCode::SUCCESS;
    while (const std::optional<std::string> line = prompt.readLine()) {
        try {
            const std::vector<CommandWords::Word> words = CommandWords::split(*line);
            if (words.empty())
                continue;
            if (words.front().text == "quit" || words.front().text == "exit")
                break;
            if (words.front().text == "help") {
                result = listCommands({words.begin() + 1, words.end()});
                continue;
            }
            result = runLine(words);
        } catch (const UsageError& error) {
            std::cerr << error.what() << std::endl;
            result = ExitCode::USAGE_ERROR;
        }
        if (!_session.getClient().isConnected())
            break;
    }
    return result;
}

int Ctl::runLine(const std::vector<CommandWords::Word>& words) {
    const std::string& name = words.front().text;
    const std::vector<CommandWords::Word> arguments(words.begin() + 1, words.end());
    return isOwn(name) ? runOwn(name, arguments) : runCommand(name, arguments);
}

int Ctl::runCommand(const std::string& name, const std::vector<CommandWords::Word>& arguments) {
    const std::vector<CommandWords::KeyType> types =
        arguments.empty() ? std::vector<CommandWords::KeyType>() : _session.getHelp(name).arguments;
    return print(_session.getClient().call(name, CommandWords::toParams(arguments, types), _options.timeout));
}

int Ctl::runOwn(const std::string& name, const std::vector<CommandWords::Word>& arguments) {
    if (name == "list-commands")
        return listCommands(arguments);
    if (name == "abort") {
        const int result =
            callServer("server.abort", CommandWords::toParams(arguments, {{"reason", "text"}}));
        return result == ExitCode::SUCCESS ? waitForEnd(false) : result;
    }
    if (!arguments.empty())
        throw UsageError(name + " takes no arguments");
    if (name == "list-sessions")
        return listSessions();
    if (name == "stop")
        return stop();
    if (name == "status")
        return showStatus();
    return callServer("server." + name, "{}");
}

int Ctl::callServer(const std::string& method, const std::string& params) {
    return print(_session.getClient().call(method, params, _options.timeout.value_or(ANSWER_TIME)));
}

int Ctl::showStatus() {
    RpcClient::Reply reply =
        _session.getClient().call("server.status", "{}", _options.timeout.value_or(ANSWER_TIME));
    if (reply.failed || _options.json)
        return print(reply);
    Properties status{std::string_view(reply.result)};
    status.set("startTime", localTime(status.getReal("startTime")));
    status.set("uptime", duration(status.getReal("uptime")));
    std::vector<Properties> clients;
    status.get("clients", clients);
    for (Properties& client : clients)
        client.set("since", localTime(client.getReal("since")));
    status.set("clients", clients);
    if (status.hasName("running")) {
        Properties running = status.getProperties("running");
        running.set("since", localTime(running.getReal("since")));
        running.set("for", duration(running.getReal("seconds")));
        running.remove("seconds");
        status.set("running", running);
    }
    reply.result = status.toString();
    return print(reply);
}

int Ctl::print(const RpcClient::Reply& reply) const {
    if (reply.failed) {
        printError(reply);
        return ExitCode::COMMAND_FAILED;
    }
    if (_options.json)
        std::cout << reply.result << std::endl;
    else {
        ResponsePrinter(std::cout).print(reply.result, {"Command"});
        std::cout.flush();
    }
    return ExitCode::SUCCESS;
}

void Ctl::printError(const RpcClient::Reply& reply) const {
    if (_options.json) {
        std::cout << "{\"error\":{\"code\":" << reply.code
                  << ",\"message\":" << RpcMessage::quote(reply.message) << ",\"data\":" << reply.data << "}}"
                  << std::endl;
        return;
    }
    const Properties data{std::string_view(reply.data)};
    const unsigned rank = data.getOr("Rank", 0u);
    std::cerr << "Error: " << reply.message;
    if (data.hasName("Rank"))
        std::cerr << " (rank " << rank << ")";
    std::cerr << std::endl;
    std::set<std::string> hidden{"Command", "Error", "Kind", "Rank", "Severity"};
    if (data.getOr("Ranks", "") == std::to_string(rank))
        hidden.insert("Ranks");
    if (data.getOr("Kind", "") != Error::INTERNAL_KIND)
        hidden.insert("StackTrace"); // people can do something about what they typed, not about the program
    ResponsePrinter(std::cerr).print(reply.data, hidden);
}

int Ctl::listSessions() const {
    std::vector<Properties> rows;
    for (const SessionRecord& record : SessionLocator::getSingleton().findSessions()) {
        if (_options.json) {
            std::cout << record.describe().toString() << std::endl;
            continue;
        }
        Properties row;
        row.set("session", record.name);
        row.set("host", record.host);
        row.set("port", record.port == 0 ? "none" : std::to_string(record.port));
        row.set("process", record.pid);
        row.set("ranks", record.ranks);
        row.set("started", localTime(record.startTime));
        rows.push_back(row);
    }
    if (_options.json)
        return ExitCode::SUCCESS;
    if (rows.empty())
        std::cout << "No session runs here." << std::endl;
    else {
        Properties table;
        table.set("sessions", rows);
        ResponsePrinter(std::cout).print(table.toString());
    }
    return ExitCode::SUCCESS;
}

int Ctl::listCommands(const std::vector<CommandWords::Word>& arguments) {
    if (arguments.size() > 1)
        throw UsageError("list-commands takes the name of one command at most");
    if (!arguments.empty()) {
        _session.forgetHelp();
        const std::string& name = arguments.front().text;
        const CtlSession::Help& help = _session.getHelp(name);
        if (!help.known) {
            std::cerr << "Error: There is no command \"" << name << "\""
                      << (help.nearest.empty() ? "" : ", did you mean \"" + help.nearest + "\"?")
                      << std::endl;
            return ExitCode::COMMAND_FAILED;
        }
        if (_options.json)
            std::cout << help.json << std::endl;
        else
            ResponsePrinter(std::cout).print(help.json);
        return ExitCode::SUCCESS;
    }
    const RpcClient::Reply reply =
        _session.getClient().call("server.listCommands", "{}", _options.timeout.value_or(ANSWER_TIME));
    if (reply.failed || _options.json)
        return print(reply);
    std::vector<Properties> commands;
    Properties(std::string_view(reply.result)).get("commands", commands);
    Properties summaries;
    for (const Properties& command : commands)
        summaries.set(command.getString("name"), command.getString("summary") + usageOf(command));
    ResponsePrinter(std::cout).print(summaries.toString());
    return ExitCode::SUCCESS;
}

int Ctl::stop() {
    const RpcClient::Reply reply =
        _session.getClient().call("server.stop", "{}", _options.timeout.value_or(ANSWER_TIME));
    if (reply.failed)
        return print(reply);
    const Properties status{std::string_view(reply.result)};
    const bool commandRuns = status.hasName("running");
    if (commandRuns) {
        const Properties running = status.getProperties("running");
        std::cerr << "The server stops when " << running.getString("command") << " of "
                  << running.getString("client") << " has ended, which has run for "
                  << duration(running.getReal("seconds"));
        if (running.hasName("progress"))
            std::cerr << " and is at " << std::lround(100.0 * running.getReal("progress")) << " %";
        std::cerr << ".\nOther calls of orvexctl can end it earlier:"
                  << (running.hasName("task") ? " \"cancel\" asks it to end," : "")
                  << " \"abort\" takes the job down." << std::endl;
    }
    return waitForEnd(commandRuns);
}

/// Returns when the server's process is gone, or its connection where the process can't be seen.
int Ctl::waitForEnd(bool commandRuns) {
    const std::chrono::milliseconds time = _options.timeout.value_or(STOP_TIME);
    bool ended = _session.getClient().waitForEnd(time);
    while (!ended && commandRuns && !_options.timeout)
        ended = _session.getClient().waitForEnd(time);
    if (!ended) {
        std::cerr << "orvexctl: the server still runs" << std::endl;
        return ExitCode::TIMED_OUT;
    }
    const auto end = std::chrono::steady_clock::now() + time;
    while (_session.getRecord().isAliveHere()) {
        if (std::chrono::steady_clock::now() > end) {
            std::cerr << "orvexctl: the server has closed its connections, but its process "
                      << _session.getRecord().pid << " still runs" << std::endl;
            return ExitCode::TIMED_OUT;
        }
        Platform::time().sleepMilliseconds(10);
    }
    return ExitCode::SUCCESS;
}
