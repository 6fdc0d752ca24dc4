#include "client/OwnCommands.h"

#include <algorithm>
#include <array>

namespace {

struct OwnCommand {
    std::string_view name;
    std::string_view arguments;
    std::string_view summary;
};

constexpr std::array COMMANDS{
    OwnCommand{"help", " [NAME]", "all commands; with NAME, the arguments and results of that one"},
    OwnCommand{"list-sessions", "", "the sessions of this user, newest first"},
    OwnCommand{"list-commands", " [NAME]",
               "the commands of the server; with NAME, the arguments and results of that one"},
    OwnCommand{"status", "", "the command that runs, since when, and for which client"},
    OwnCommand{"where", " [--rank N]",
               "where all ranks stand, also while they hang; with --rank, that one in full"},
    OwnCommand{"bills", " [COUNT]", "what the latest commands cost: time, waiting, memory, messages"},
    OwnCommand{"top", " [-n COUNT]", "the job at work, each second: hosts and ranks, the slowest marked"},
    OwnCommand{"trace", " [--seconds N]",
               "what all ranks do during 10 s, as a timeline for a viewer; --output FILE, else trace.json"},
    OwnCommand{"postmortem", " [JOB]",
               "the dead jobs of this host; with JOB (its number, a process, last), what it did last"},
    OwnCommand{
        "report", " [--output FILE]",
        "write the job's profile as a web page; with --from FILE, from a profile that was saved with --json"},
    OwnCommand{"cancel", " [--force]",
               "ask the task at work to end early; with --force, take the job down if it doesn't"},
    OwnCommand{"stop", "", "end the server in order: the command at work finishes first"},
    OwnCommand{"abort", " [reason=TEXT]", "take the whole job down at once"},
};

constexpr std::size_t WIDTH = 23; ///< of name and arguments

} // namespace

bool OwnCommands::isOne(std::string_view name) {
    return std::any_of(COMMANDS.begin(), COMMANDS.end(), [&](const auto& each) { return each.name == name; });
}

std::vector<std::string> OwnCommands::getNames() {
    std::vector<std::string> names;
    names.reserve(std::size(COMMANDS));
    for (const OwnCommand& command : COMMANDS)
        names.emplace_back(command.name);
    return names;
}

std::vector<std::string> OwnCommands::getOptions(std::string_view name) {
    if (name == "where")
        return {"--rank"};
    if (name == "top")
        return {"--ranks", "--seconds", "--sort"};
    if (name == "postmortem")
        return {"--rank", "--remove"};
    if (name == "report")
        return {"--output", "--from"};
    if (name == "cancel")
        return {"--force"};
    if (name == "trace")
        return {"--seconds", "--output"};
    return {};
}

std::string OwnCommands::describe(std::string_view name) {
    std::string text;
    for (const OwnCommand& command : COMMANDS) {
        if (!name.empty() && name != command.name)
            continue;
        std::string head = std::string(command.name).append(command.arguments);
        head.resize(std::max(WIDTH, head.size()), ' ');
        text.append("  ").append(head).append(command.summary).append("\n");
    }
    return text;
}
