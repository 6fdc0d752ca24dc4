#include "client/CtlOptions.h"

#include "client/OwnCommands.h"

#include "kernel/OrvexVersion.h"

#include <CLI/CLI.hpp>

#include <array>
#include <charconv>
#include <iostream>
#include <string_view>

namespace {

/// The seconds of "30m", "1.5h", "45s" or "45"; nothing when it is none of them.
std::optional<double> parseTime(std::string text) {
    constexpr double MAX_TIME = 1e8; // [s]
    double unit = 1.0;
    if (text.ends_with('s') || text.ends_with('m') || text.ends_with('h')) {
        unit = text.back() == 's' ? 1.0 : text.back() == 'm' ? 60.0 : 3600.0;
        text.pop_back();
    }
    double number = 0.0;
    const auto [end, failed] = std::from_chars(text.data(), text.data() + text.size(), number);
    if (failed != std::errc() || end != text.data() + text.size() || !(number > 0.0) ||
        number * unit > MAX_TIME)
        return std::nullopt;
    return number * unit;
}

constexpr char DESCRIPTION[] =
    "Drives a running server: one command, a script of them, or an interactive prompt.";

constexpr char FOOTER[] = R"(
Arguments are key=value; the command's help decides the type of a value. Without it, true, false and
numbers are what they look like, [...] and {...} are JSON, and the rest is text. key='"1"' is the text 1;
key:=JSON is taken as it stands. A script holds a command a line; # begins a comment.

Without a command: a prompt, or the script on standard input when that isn't a terminal.

Ctrl-C asks the server to cancel the command at work, and waits; once more, it leaves the command running.

Exit codes: 0 done, 1 the command failed, 2 wrong usage, 3 no server to connect to, 4 the server refuses this
client, 5 the connection was lost, 6 time is up, 7 the output can't be written, 130 left by Ctrl-C.

Examples:
  orvexctl GetHosts
  orvexctl ListDir path=/data
  orvexctl --json --session wing.sim GetTimes
  orvexctl --deadline 30m SolveHeatConduction
  orvexctl --bill SolveHeatConduction
  orvexctl where
  orvexctl trace --seconds 5
  orvexctl --file commands.txt)";

/// An option of some commands of orvexctl itself. It is handed on as one of their arguments.
struct OwnOption {
    const char* name;
    bool hasValue;
    std::array<std::string_view, 2> commands; ///< the second may be empty
    const char* meaning;

    bool belongsTo(std::string_view command) const {
        return !command.empty() && (command == commands[0] || command == commands[1]);
    }
    /// As in "\"top\" or \"trace\"".
    std::string listCommands() const {
        std::string text = "\"" + std::string(commands[0]) + "\"";
        if (!commands[1].empty())
            text += " or \"" + std::string(commands[1]) + "\"";
        return text;
    }
    std::string describe() const { return "Of " + listCommands() + ": " + meaning; }
};

constexpr std::array OWN_OPTIONS{
    OwnOption{"--rank", true, {"where", "postmortem"}, "this rank alone"},
    OwnOption{"--force", false, {"cancel"}, "take the job down if the task doesn't look"},
    OwnOption{"--ranks", false, {"top"}, "a line for each rank"},
    OwnOption{"-n", true, {"top"}, "so many pictures as plain text; 0: until it is ended"},
    OwnOption{"--seconds", true, {"top", "trace"}, "between two pictures, default 1; how long, default 10"},
    OwnOption{"--sort", true, {"top"}, "by P processor, M memory, W waiting, N name"},
    OwnOption{"--output", true, {"trace", "report"}, "the file to write; - is standard output of \"report\""},
    OwnOption{"--from", true, {"report"}, "a saved profile, in place of a server"},
    OwnOption{"--remove", false, {"postmortem"}, "remove the profiles of that job, or of \"all\""},
};

struct OwnWish {
    CLI::Option* option = nullptr;
    std::string value;
    bool isSet = false;
};

} // namespace

CtlOptions CtlOptions::parse(int argc, char** argv, std::optional<int>& exitCode) {
    CtlOptions options;
    double timeout = 0.0;
    std::string deadline;
    std::array<OwnWish, OWN_OPTIONS.size()> wishes;
    CLI::App app(DESCRIPTION, "orvexctl");
    app.footer("\nCommands of orvexctl itself:\n" + OwnCommands::describe() + FOOTER);
    app.set_version_flag("--version", OrvexVersion::getVersionedProductName());
    app.add_option("-s,--session", options.session,
                   "Session by name or process number; default: the newest here");
    app.add_option("--host", options.host, "Host of the server");
    app.add_option("--port", options.port, "Port of the server")->check(CLI::Range(1u, 65535u));
    app.add_option("--key-file", options.keyFile, "Session record that holds address and key");
    app.add_option("-f,--file", options.script, "Script of commands; - is standard input");
    app.add_option("--timeout", timeout,
                   "Seconds to wait for an answer; default: as long as the server lives")
        ->check(CLI::PositiveNumber);
    app.add_option("--deadline", deadline,
                   "Running time after which the server cancels a command on all ranks: 90s, 30m, 1.5h")
        ->check([](const std::string& text) {
            return parseTime(text) ? std::string() : "\"" + text + "\" is no time like 90s, 30m or 1.5h";
        });
    for (std::size_t i = 0; i < OWN_OPTIONS.size(); ++i) {
        const OwnOption& option = OWN_OPTIONS[i];
        wishes[i].option = option.hasValue ? app.add_option(option.name, wishes[i].value, option.describe())
                                           : app.add_flag(option.name, wishes[i].isSet, option.describe());
    }
    // An empty value is a variable that wasn't set; taken for "any", it would choose somebody else's session.
    for (const char* name : {"--session", "--host", "--key-file", "--file", "--output", "--from"})
        app.get_option(name)->check([](const std::string& value) {
            return value.empty() ? std::string("the value is empty") : std::string();
        });
    app.add_flag("--json", options.json,
                 "Answers as JSON, one object a line; the console goes to standard error");
    app.add_flag("--bill", options.bill,
                 "After each answer, what the command cost: time, waiting, memory, messages");
    app.add_flag("-q,--quiet", options.quiet, "Don't show what the server prints");
    app.add_flag("-k,--keep-going", options.keepGoing, "A script goes on after an error");
    app.add_option("command", options.words, "Command and its arguments, key=value");
    options.usage = app.help();
    try {
        app.parse(argc, argv);
        if (timeout > 0.0)
            options.timeout = std::chrono::milliseconds(static_cast<long long>(timeout * 1000.0) + 1);
        if (!deadline.empty())
            options.deadline = parseTime(deadline);
        const std::string first = options.words.empty() ? std::string() : options.words.front();
        for (std::size_t i = 0; i < OWN_OPTIONS.size(); ++i) {
            const OwnOption& option = OWN_OPTIONS[i];
            if (wishes[i].option->count() == 0)
                continue;
            if (!option.belongsTo(first))
                throw CLI::ValidationError(option.name, "it belongs to the command " + option.listCommands());
            options.words.emplace_back(option.name);
            if (option.hasValue)
                options.words.push_back(wishes[i].value);
        }
        if (!options.script.empty() && !options.words.empty())
            throw CLI::ValidationError("--file", "a script and a command can't both be given");
    } catch (const CLI::ParseError& error) {
        const bool wrong = app.exit(error) != 0;
        exitCode = wrong               ? ExitCode::USAGE_ERROR
                   : std::cout.flush() ? ExitCode::SUCCESS
                                       : ExitCode::OUTPUT_FAILED;
    }
    return options;
}
