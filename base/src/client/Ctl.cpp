#include "client/Ctl.h"

#include "client/CtlBill.h"
#include "client/CtlInterrupt.h"
#include "client/CtlPostmortem.h"
#include "client/CtlPrompt.h"
#include "client/CtlReport.h"
#include "client/CtlTop.h"
#include "client/CtlTrace.h"
#include "client/OwnCommands.h"
#include "client/ResponsePrinter.h"
#include "kernel/Error.h"
#include "kernel/Properties.h"
#include "kernel/server/RpcMessage.h"
#include "kernel/server/SessionLocator.h"

#include "platform/FileSystem.h"
#include "platform/Io.h"
#include "platform/Process.h"
#include "platform/Signals.h"
#include "platform/StringHelper.h"
#include "platform/Time.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <cstdio>
#include <ctime>
#include <fstream>
#include <iostream>
#include <set>
#include <sstream>

namespace {

constexpr std::chrono::milliseconds ANSWER_TIME{10000}; ///< of the server's own methods
constexpr std::chrono::milliseconds STOP_TIME{30000};
constexpr std::chrono::milliseconds ROLL_CALL_TIME{20000}; ///< more than the server gives the ranks
constexpr const char* SUCCESS_KEY = "Success"; ///< of a response: false when the command didn't do its work
constexpr const char* REASON_KEY = "Reason";   ///< beside it, for people
constexpr std::size_t MAX_LINE = std::size_t(16) << 20; ///< of a script [bytes]

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
    case RpcClientError::GIVEN_UP:
        return ExitCode::GIVEN_UP;
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

std::string percent(double fraction) {
    return std::to_string(std::lround(100.0 * fraction)) + " %";
}

std::vector<CommandWords::Word> toWords(const std::vector<std::string>& texts) {
    std::vector<CommandWords::Word> words;
    words.reserve(texts.size());
    for (const std::string& text : texts)
        words.push_back({text});
    return words;
}

std::vector<std::string> toTexts(const std::vector<CommandWords::Word>& words) {
    std::vector<std::string> texts;
    texts.reserve(words.size());
    for (const CommandWords::Word& word : words)
        texts.push_back(word.text);
    return texts;
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

std::string forPeople(const std::string& json, const std::set<std::string>& hidden = {}) {
    std::ostringstream text;
    ResponsePrinter(text).print(json, hidden);
    return text.str();
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
    int result = ExitCode::SUCCESS;
    std::string failure;
    try {
        result = dispatch();
        _console.flush();
    } catch (const UsageError& error) {
        result = ExitCode::USAGE_ERROR;
        failure = error.what();
    } catch (const RpcClientError& error) {
        result = exitCodeOf(error);
        failure = error.what();
    } catch (const OutputError& error) {
        result = result == ExitCode::SUCCESS ? ExitCode::OUTPUT_FAILED : result;
        failure = error.what();
    } catch (const std::exception& error) { // an answer that isn't what the protocol says
        result = ExitCode::CONNECTION_LOST;
        failure = error.what();
    }
    if (!failure.empty())
        _console.tell("orvexctl: " + failure);
    _console.leave(result != ExitCode::GIVEN_UP);
    return result;
}

int Ctl::dispatch() {
    const std::string first = _options.words.empty() ? std::string() : _options.words.front();
    const bool ownHelp =
        first == "help" && (_options.words.size() != 2 || OwnCommands::isOne(_options.words[1]));
    const bool asksNobody =
        first == "list-sessions" || first == "postmortem" || ownHelp || CtlReport::isOffline(_options.words);
    if (asksNobody)
        return runLine(toWords(_options.words));
    if (!_options.script.empty() &&
        Platform::filesystem().isDirectory(StringHelper::toWString(_options.script)))
        throw UsageError("The script " + _options.script + " is a folder");
    _session.connect(OwnCommands::isOne(first) && first != "report" ? SessionHandshake::Access::CONTROL
                                                                    : SessionHandshake::Access::COMMANDS);
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
            _console.tell(name + ":" + std::to_string(number) + ": " + error.what());
            code = ExitCode::USAGE_ERROR;
        }
        result = result == ExitCode::SUCCESS ? code : result;
        if (result != ExitCode::SUCCESS && !_options.keepGoing)
            break;
        if (_interrupted)
            return result == ExitCode::SUCCESS ? ExitCode::GIVEN_UP : result;
        if (!_session.getClient().isConnected())
            break;
    }
    if (script.bad() || (&script == &std::cin && std::ferror(stdin) != 0))
        throw UsageError("The script " + name + " can't be read to its end");
    return result;
}

int Ctl::runPrompt() {
    Platform::signals().ignore(Platform::Signals::INTERRUPT); // except while a command runs
    CtlPrompt prompt(_session, _console);
    int result = ExitCode::SUCCESS;
    while (const std::optional<std::string> line = prompt.readLine()) {
        try {
            const std::vector<CommandWords::Word> words = CommandWords::split(*line);
            if (words.empty())
                continue;
            if (words.front().text == "quit" || words.front().text == "exit")
                break;
            result = runLine(words);
        } catch (const UsageError& error) {
            _console.tell(error.what());
            result = ExitCode::USAGE_ERROR;
        }
        _console.flush();
        if (!_session.getClient().isConnected())
            break;
    }
    return result;
}

int Ctl::runLine(const std::vector<CommandWords::Word>& words) {
    const std::string& name = words.front().text;
    const std::vector<CommandWords::Word> arguments(words.begin() + 1, words.end());
    return OwnCommands::isOne(name) ? runOwn(name, arguments) : runCommand(name, arguments);
}

int Ctl::runCommand(const std::string& name, const std::vector<CommandWords::Word>& arguments) {
    const std::vector<CommandWords::KeyType> types =
        arguments.empty() ? std::vector<CommandWords::KeyType>() : _session.getHelp(name).arguments;
    const std::string params = CommandWords::toParams(arguments, types);
    const std::string goesOn =
        "; " + name + " goes on in the server: \"orvexctl status\" tells of it, \"orvexctl cancel\" ends it";
    CtlInterrupt interrupt(_session, _console, name);
    bool answered = false;
    if (_options.deadline)
        if (const RpcClient::Reply reply = sendDeadline(); reply.failed)
            return print(reply);
    if (_options.bill && !_asksForBills) {
        const RpcClient::Reply reply =
            _session.getClient().call("server.bill", "{\"on\":true}", _options.timeout.value_or(ANSWER_TIME));
        if (reply.failed)
            return print(reply);
        _asksForBills = true;
    }
    try {
        const RpcClient::Reply reply = _session.getClient().call(name, params, _options.timeout);
        answered = true;
        _interrupted = interrupt.happened();
        const int code = reply.failed ? print(reply) : printResponse(name, reply.result);
        if (!reply.bill.empty())
            _console.print(_options.json ? "{\"bill\":" + reply.bill + "}\n"
                                         : CtlBill::describe(Properties(std::string_view(reply.bill))));
        else if (_options.bill && !reply.failed)
            _console.tell("No bill is kept of " + name + ": it doesn't run on all ranks");
        return code;
    } catch (const RpcClientError& error) {
        if (error.getTrouble() != RpcClientError::TIMED_OUT && error.getTrouble() != RpcClientError::GIVEN_UP)
            throw;
        throw RpcClientError(error.getTrouble(), error.what() + goesOn);
    } catch (const OutputError& error) { // nobody reads what it prints
        throw OutputError(answered ? error.what() : error.what() + goesOn);
    }
}

/// Whether a key Success of the response tells if the command did its work. A key of that name that its help
/// doesn't tell is a solver's own result.
bool Ctl::tellsSuccess(const std::string& name, const std::string& response) {
    if (response.find("\"" + std::string(SUCCESS_KEY) + "\":") == std::string::npos)
        return false;
    const std::vector<CommandWords::KeyType>& results = _session.getHelp(name).results;
    return std::any_of(results.begin(), results.end(), [](const CommandWords::KeyType& each) {
        return each.key == SUCCESS_KEY && each.type == "bool";
    });
}

int Ctl::printResponse(const std::string& name, const std::string& response) {
    const bool toldSuccess = tellsSuccess(name, response);
    const std::set<std::string> hidden = toldSuccess
                                             ? std::set<std::string>{"Command", SUCCESS_KEY, REASON_KEY}
                                             : std::set<std::string>{"Command"};
    printObject(response, hidden);
    if (!toldSuccess)
        return ExitCode::SUCCESS;
    const Properties values{std::string_view(response)};
    if (values.getOr(SUCCESS_KEY, true))
        return ExitCode::SUCCESS;
    _console.tell("Error: " + values.getOr(REASON_KEY, name + " failed"));
    return ExitCode::COMMAND_FAILED;
}

int Ctl::runOwn(const std::string& name, const std::vector<CommandWords::Word>& arguments) {
    if (name == "top")
        return CtlTop(_options, _session, _console).run(arguments);
    if (name == "trace")
        return trace(arguments); // Ctrl-C ends it early
    const CtlInterrupt interrupt(_session, _console);
    if (name == "help")
        return help(arguments);
    if (name == "list-commands")
        return listCommands(arguments);
    if (name == "abort") {
        const int result =
            callServer("server.abort", CommandWords::toParams(arguments, {{"reason", "text"}}));
        return result == ExitCode::SUCCESS ? waitForEnd(false) : result;
    }
    if (name == "bills")
        return showBills(arguments);
    if (name == "where")
        return where(arguments);
    if (name == "report")
        return report(arguments);
    if (name == "cancel")
        return cancel(arguments);
    if (name == "postmortem")
        return CtlPostmortem(_console, _options.json).run(toTexts(arguments));
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

/// The server keeps the deadline of the next command, so that it holds also without this client.
RpcClient::Reply Ctl::sendDeadline() {
    Properties params;
    params.set("seconds", *_options.deadline);
    return _session.getClient().call("server.deadline", params.toString(),
                                     _options.timeout.value_or(ANSWER_TIME));
}

int Ctl::where(const std::vector<CommandWords::Word>& arguments) {
    Properties params;
    if (!arguments.empty()) {
        unsigned rank = 0;
        const std::string text = arguments.size() == 2 ? arguments[1].text : std::string();
        const char* const textEnd = text.data() + text.size();
        const auto [end, failed] = std::from_chars(text.data(), textEnd, rank);
        if (arguments[0].text != "--rank" || failed != std::errc() || end != textEnd)
            throw UsageError("where takes nothing, or --rank and the number of a rank");
        params.set("rank", rank);
    }
    return printStanding(_session.getClient().call("server.where", params.toString(),
                                                   _options.timeout.value_or(ROLL_CALL_TIME)));
}

int Ctl::trace(const std::vector<CommandWords::Word>& arguments) {
    try {
        printObject(CtlTrace(_options, _console, _session).run(arguments).toString());
    } catch (const CtlTrace::Refusal& refusal) {
        return print(refusal.getReply());
    }
    return ExitCode::SUCCESS;
}

int Ctl::report(const std::vector<CommandWords::Word>& arguments) {
    const CtlReport report = CtlReport::parse(arguments);
    RpcClient::Reply reply;
    if (report.from.empty())
        reply = _session.getClient().call(CtlReport::COMMAND, "{}", _options.timeout);
    else
        reply.result = report.read();
    if (reply.failed)
        return print(reply);
    std::string told;
    try {
        told = report.write(reply.result, _session.getRecord().name, _options.json, _console);
    } catch (const InputError& error) {
        throw UsageError((report.from.empty() ? "" : report.from + ": ") + error.what());
    }
    if (!told.empty())
        _console.print(told + "\n");
    return ExitCode::SUCCESS;
}

int Ctl::cancel(const std::vector<CommandWords::Word>& arguments) {
    if (arguments.empty())
        return callServer("server.cancel", "{}");
    if (arguments.size() > 1 || arguments[0].text != "--force")
        throw UsageError("cancel takes nothing, or --force");
    const RpcClient::Reply reply = _session.getClient().call("server.cancel", "{\"force\":true}",
                                                             _options.timeout.value_or(ROLL_CALL_TIME));
    const int result = printStanding(reply);
    const bool forced = !reply.failed && Properties(std::string_view(reply.result)).getOr("forced", false);
    return forced ? waitForEnd(false) : result;
}

/// Prints where the ranks stand: the text for people, the rest for programs.
int Ctl::printStanding(const RpcClient::Reply& reply) {
    if (reply.failed)
        return print(reply);
    Properties standing{std::string_view(reply.result)};
    const std::string text = standing.getOr("text", "");
    standing.remove("text");
    if (_options.json || text.empty())
        printObject(standing.toString());
    else
        _console.print(text.ends_with('\n') ? text : text + "\n");
    return ExitCode::SUCCESS;
}

int Ctl::showBills(const std::vector<CommandWords::Word>& arguments) {
    if (arguments.size() > 1)
        throw UsageError("bills takes nothing, or the number of bills");
    Properties params;
    if (!arguments.empty()) {
        const std::string& text = arguments.front().text;
        unsigned count = 0;
        const auto [end, failed] = std::from_chars(text.data(), text.data() + text.size(), count);
        if (failed != std::errc() || end != text.data() + text.size() || count == 0)
            throw UsageError("bills takes nothing, or the number of bills");
        params.set("count", count);
    }
    const RpcClient::Reply reply =
        _session.getClient().call("server.bills", params.toString(), _options.timeout.value_or(ANSWER_TIME));
    if (reply.failed || _options.json)
        return print(reply);
    std::vector<Properties> bills;
    Properties(std::string_view(reply.result)).get("bills", bills);
    _console.print(CtlBill::list(bills));
    return ExitCode::SUCCESS;
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
        if (running.hasName("deadline")) {
            const double left = running.getReal("deadlineLeft");
            running.set("deadline", duration(running.getReal("deadline")) +
                                        (left < 0.0 ? ", passed" : ", in " + duration(left)));
            running.remove("deadlineLeft");
        }
        if (running.hasName("bill"))
            running.set("bill", CtlBill::describeSoFar(running.getProperties("bill")));
        running.set("since", localTime(running.getReal("since")));
        running.set("for", duration(running.getReal("seconds")));
        running.remove("seconds");
        if (running.hasName("progress"))
            running.set("progress", percent(running.getReal("progress")));
        if (running.getOr("message", "").empty())
            running.remove("message");
        status.set("running", running);
    }
    reply.result = status.toString();
    return print(reply);
}

int Ctl::print(const RpcClient::Reply& reply) {
    if (reply.failed)
        printError(reply);
    else
        printObject(reply.result);
    return reply.failed ? ExitCode::COMMAND_FAILED : ExitCode::SUCCESS;
}

void Ctl::printObject(const std::string& json, const std::set<std::string>& hidden) {
    _console.print(_options.json ? json + "\n" : forPeople(json, hidden));
}

void Ctl::printError(const RpcClient::Reply& reply) {
    if (_options.json) {
        _console.print("{\"error\":{\"code\":" + std::to_string(reply.code) + ",\"message\":" +
                       RpcMessage::quote(reply.message) + ",\"data\":" + reply.data + "}}\n");
        return;
    }
    const Properties data{std::string_view(reply.data)};
    const unsigned rank = data.getOr("Rank", 0u);
    std::set<std::string> hidden{"Command", "Error", "Kind", "Rank", "Severity"};
    if (data.getOr("Ranks", "") == std::to_string(rank))
        hidden.insert("Ranks");
    if (data.getOr("Kind", "") != Error::INTERNAL_KIND)
        hidden.insert("StackTrace"); // people can do something about what they typed, not about the program
    std::string text = "Error: " + reply.message;
    if (data.hasName("Rank"))
        text += " (rank " + std::to_string(rank) + ")";
    text += "\n" + forPeople(reply.data, hidden);
    text.pop_back();
    _console.tell(text);
}

int Ctl::listSessions() {
    std::vector<std::string> ignored;
    std::vector<Properties> rows;
    for (const SessionRecord& record : SessionLocator::getSingleton().findSessions(&ignored)) {
        const std::string state = record.isVisible() ? "runs" : "unseen";
        if (_options.json) {
            Properties description = record.describe();
            description.set("state", state);
            printObject(description.toString());
            continue;
        }
        Properties row;
        row.set("session", record.name);
        row.set("host", record.host);
        row.set("port", record.port == 0 ? "none" : std::to_string(record.port));
        row.set("process", record.pid);
        row.set("ranks", record.ranks);
        row.set("started", localTime(record.startTime));
        row.set("state", state);
        rows.push_back(row);
    }
    for (const std::string& reason : ignored)
        _console.tell("Ignored: " + reason);
    if (_options.json)
        return ExitCode::SUCCESS;
    Properties table;
    table.set("sessions", rows);
    _console.print(rows.empty() ? "No session runs here.\n" : forPeople(table.toString()));
    CtlPostmortem(_console, _options.json).mention();
    return ExitCode::SUCCESS;
}

int Ctl::help(const std::vector<CommandWords::Word>& arguments) {
    if (arguments.size() > 1)
        throw UsageError("help takes the name of one command at most");
    if (!arguments.empty() && OwnCommands::isOne(arguments.front().text)) {
        _console.print(OwnCommands::describe(arguments.front().text));
        return ExitCode::SUCCESS;
    }
    if (arguments.empty() && !_session.getClient().isConnected()) {
        _console.print(_options.usage);
        return ExitCode::SUCCESS;
    }
    if (arguments.empty() && !_options.json)
        _console.print("Commands of orvexctl itself:\n" + OwnCommands::describe() +
                       "\nCommands of the server:\n");
    return listCommands(arguments);
}

int Ctl::listCommands(const std::vector<CommandWords::Word>& arguments) {
    if (arguments.size() > 1)
        throw UsageError("list-commands takes the name of one command at most");
    if (!arguments.empty()) {
        _session.forgetHelp();
        const std::string& name = arguments.front().text;
        const CtlSession::Help& help = _session.getHelp(name);
        if (!help.known) {
            _console.tell("Error: There is no command \"" + name + "\"" +
                          (help.nearest.empty() ? "" : ", did you mean \"" + help.nearest + "\"?"));
            return ExitCode::COMMAND_FAILED;
        }
        printObject(help.json);
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
    _console.print(forPeople(summaries.toString()));
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
        std::string text = "The server stops when " + running.getString("command") + " of " +
                           running.getString("client") + " has ended, which has run for " +
                           duration(running.getReal("seconds"));
        if (running.hasName("progress"))
            text += " and is at " + percent(running.getReal("progress"));
        text += ".\nOther calls of orvexctl can end it earlier:";
        text += running.hasName("task") ? " \"cancel\" asks it to end," : "";
        _console.tell(text + " \"where\" tells where its ranks stand, \"abort\" takes the job down.");
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
        _console.tell("orvexctl: the server still runs");
        return ExitCode::TIMED_OUT;
    }
    const auto end = std::chrono::steady_clock::now() + time;
    while (_session.getRecord().isAliveHere()) {
        if (std::chrono::steady_clock::now() > end) {
            _console.tell("orvexctl: the server has closed its connections, but its process " +
                          std::to_string(_session.getRecord().pid) + " still runs");
            return ExitCode::TIMED_OUT;
        }
        Platform::time().sleepMilliseconds(10);
    }
    return ExitCode::SUCCESS;
}
