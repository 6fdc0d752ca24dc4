#include "machine/start/ServerHostOptions.h"

#include "platform/StringHelper.h"

#include <locale>

namespace {

/// One walk of the pass, with what counts beside the options themselves.
struct Walk {
    CommandLine& line;
    bool parallel;
    bool postProcess = false;
    ServerHostOptions options;

    std::wstring decodedValue() const;
    int number(const std::string& what) const;
};

std::wstring Walk::decodedValue() const {
    try {
        return line.decodedValue();
    } catch (const std::invalid_argument& error) {
        throw ServerHostOptions::Refusal(ServerHostOptions::Refusal::INVALID_ARGUMENT,
                                         std::string("\n") + error.what());
    }
}

int Walk::number(const std::string& what) const {
    const std::string text = line.value();
    const auto& characters = std::use_facet<std::ctype<char>>(std::locale::classic());
    if (text.empty() || !characters.is(std::ctype_base::digit, text.front()))
        throw ServerHostOptions::Refusal(ServerHostOptions::Refusal::INVALID_NUMBER,
                                         "\nInvalid server " + what + " number argument.");
    return CommandLine::toInt(text);
}

struct Row {
    CommandLineOption option;
    void (*apply)(Walk&);
    enum Role { ANY, SERIAL_ONLY, MASTER_ONLY } role = ANY;
};

const Row ROWS[] = {
    {{"-session", "NAME", "the session file, as a word of its own is; the extension .sim may be left out"},
     [](Walk& walk) { walk.options.sessionName = StringHelper::toWString(walk.line.value()); }},
    {{"-encoded-session", "BASE64", "the same, for names that a shell would change"},
     [](Walk& walk) { walk.options.sessionName = walk.decodedValue(); }},
    {{"-new", "", "the session file is created, and must not exist with content"},
     [](Walk& walk) { walk.options.createNew = true; }},
    {{"-load", "", "the session file is restored at start, by a solver module's command"},
     [](Walk& walk) { walk.options.load = true; }},
    {{"-port", "N", "listens on port N, 47827 unless given, or on any free one when that is taken"},
     [](Walk& walk) { walk.options.port = static_cast<unsigned>(walk.number("port")); }},
    {{"-portrange", "N", "tries N ports from the first on, and no other"},
     [](Walk& walk) { walk.options.portRange = walk.number("port range"); }},
    {{"-collab", "", "serves many clients at a time, not one"},
     [](Walk& walk) { walk.options.collaborate = true; }},
    {{"-noconnect", "", "serves no clients"}, [](Walk& walk) { walk.options.connect = false; }},
    {{"-cout", "", "prints for itself, not for its clients"},
     [](Walk& walk) { walk.options.outputToClients = false; }},
    {{"-loc", "", "clients don't find the session by themselves"},
     [](Walk& walk) { walk.options.sessionLocator = false; }},
    {{"-xclientaddr", "HOST", "listens on the network, for clients of that host alone"},
     [](Walk& walk) { walk.options.clientAddress = walk.line.value(); }},
    {{"-procfile", "PATH", "writes a line host:pid for each rank, the master's last"},
     [](Walk& walk) { walk.options.processFileName = walk.line.value(); }},
    {{"-totalview", "", "with -procfile, prints the line by which a debugger attaches to all ranks"},
     [](Walk& walk) { walk.options.attachDebugger = true; },
     Row::MASTER_ONLY},
    {{"-encoded-passtodesign", "BASE64", "a text that is kept for the design manager"},
     [](Walk& walk) { walk.options.passToDesign = walk.decodedValue(); }},
    // Machine::main() has read these two already.
    {{"-dmproject", "", "the process manages a design study"}, [](Walk&) {}},
    {{"-encoded-dmrunfile", "BASE64", "the process runs a part of a design study"}, [](Walk&) {}},
    {{"-dmpost", "", "the process is for post-processing"}, [](Walk& walk) { walk.postProcess = true; }},
    {{"-s", "", ""}, [](Walk&) {}, Row::SERIAL_ONLY},
    // Read, so that they are refused in words.
    {{"-proxy", "HOST", ""}, [](Walk& walk) { walk.options.proxyHost = walk.line.value(); }},
    {{"-encoded-proxycmd", "BASE64", ""},
     [](Walk& walk) { walk.options.proxyCommand = StringHelper::toString(walk.decodedValue()); }},
    {{"-proxydebug", "", ""}, [](Walk& walk) { walk.options.proxyDebug = true; }},
};

/// An option whose value is missing isn't taken as itself.
const Row* findRow(const Walk& walk) {
    for (const Row& row : ROWS)
        if (walk.line.isAt(row.option) && walk.line.hasValues(row.option) &&
            (row.role == Row::ANY || (row.role == Row::MASTER_ONLY) == walk.parallel))
            return &row;
    return nullptr;
}

void takeOtherWord(Walk& walk) {
    const std::string& word = walk.line.word();
    if (word.front() != '-') {
        if (walk.options.sessionName.empty())
            walk.options.sessionName = StringHelper::decode(StringHelper::fromBytes(word));
        return;
    }
    if (!walk.line.skipConsumed())
        throw ServerHostOptions::Refusal(ServerHostOptions::Refusal::INVALID_ARGUMENT,
                                         "\nUnrecognized argument '" + word + "'");
}

void check(const Walk& walk, bool designManager) {
    const auto refuseIf = [](bool wrong, const char* message) {
        if (wrong)
            throw ServerHostOptions::Refusal(ServerHostOptions::Refusal::INVALID_ARGUMENT, message);
    };
    refuseIf(!walk.options.proxyHost.empty() && walk.options.proxyCommand.empty(),
             "A proxy server was requested but a command was not provided");
    refuseIf(designManager && walk.postProcess,
             "-dmproject argument is not compatible with -dmpost argument");
}

} // namespace

ServerHostOptions ServerHostOptions::parse(int argc, const char* const* argv, CommandLine::Consumed& consumed,
                                           bool parallel, bool designManager) {
    CommandLine line(argc, argv, consumed);
    Walk walk{line, parallel, false, {}};
    while (line.next()) {
        if (const Row* row = findRow(walk)) {
            row->apply(walk);
            line.consume(row->option);
        } else {
            takeOtherWord(walk);
        }
    }
    check(walk, designManager);
    return walk.options;
}

std::vector<CommandLineOption> ServerHostOptions::list() {
    std::vector<CommandLineOption> options;
    for (const Row& row : ROWS)
        options.push_back(row.option);
    return options;
}
