#include "machine/ServerHostOptions.h"

#include "platform/Base64Encoder.h"
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
        return Base64Encoder::decode(line.value());
    } catch (const std::invalid_argument& error) {
        throw ServerHostOptions::Refusal(ServerHostOptions::Refusal::INVALID_ARGUMENT,
                                         "\nInvalid value of '" + line.word() + "': " + error.what());
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
    const char* word;
    unsigned words;
    void (*apply)(Walk&);
    enum Role { ANY, SERIAL_ONLY, MASTER_ONLY } role = ANY;
};

const Row ROWS[] = {
    {"-xclientaddr", 2, [](Walk& walk) { walk.options.clientAddress = walk.line.value(); }},
    {"-collab", 1, [](Walk& walk) { walk.options.collaborate = true; }},
    {"-noconnect", 1, [](Walk& walk) { walk.options.connect = false; }},
    {"-cout", 1, [](Walk& walk) { walk.options.outputToClients = false; }},
    {"-load", 1, [](Walk& walk) { walk.options.load = true; }},
    {"-loc", 1, [](Walk& walk) { walk.options.sessionLocator = false; }},
    {"-new", 1, [](Walk& walk) { walk.options.createNew = true; }},
    {"-encoded-passtodesign", 2, [](Walk& walk) { walk.options.passToDesign = walk.decodedValue(); }},
    {"-procfile", 2, [](Walk& walk) { walk.options.processFileName = walk.line.value(); }},
    {"-proxy", 2, [](Walk& walk) { walk.options.proxyHost = walk.line.value(); }},
    {"-encoded-proxycmd", 2,
     [](Walk& walk) { walk.options.proxyCommand = StringHelper::toString(walk.decodedValue()); }},
    {"-proxydebug", 1, [](Walk& walk) { walk.options.proxyDebug = true; }},
    {"-port", 2, [](Walk& walk) { walk.options.port = static_cast<unsigned>(walk.number("port")); }},
    {"-portrange", 2, [](Walk& walk) { walk.options.portRange = walk.number("port range"); }},
    {"-s", 1, [](Walk&) {}, Row::SERIAL_ONLY},
    {"-session", 2,
     [](Walk& walk) { walk.options.sessionName = StringHelper::toWString(walk.line.value()); }},
    {"-encoded-session", 2, [](Walk& walk) { walk.options.sessionName = walk.decodedValue(); }},
    {"-totalview", 1, [](Walk& walk) { walk.options.attachDebugger = true; }, Row::MASTER_ONLY},
    // What these two stand for was read by Machine::main() already.
    {"-dmproject", 1, [](Walk&) {}},
    {"-encoded-dmrunfile", 2, [](Walk&) {}},
    {"-dmpost", 1, [](Walk& walk) { walk.postProcess = true; }},
};

/// An option whose value is missing isn't taken as itself.
const Row* findRow(const Walk& walk) {
    for (const Row& row : ROWS)
        if (walk.line.word() == row.word && walk.line.hasValues(row.words - 1) &&
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
            line.consume(row->words);
        } else {
            takeOtherWord(walk);
        }
    }
    check(walk, designManager);
    return walk.options;
}
