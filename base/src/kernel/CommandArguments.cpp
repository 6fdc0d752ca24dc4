#include "kernel/CommandArguments.h"

#include "kernel/Command.h"
#include "kernel/Error.h"
#include "kernel/NearestName.h"
#include "kernel/Properties.h"
#include "platform/StringHelper.h"

#include <algorithm>
#include <vector>

namespace {

constexpr std::size_t MAX_SHOWN_KEY = 200;

template <class T>
void read(const Properties& args, const std::string& key) {
    T value;
    args.get(key, value);
}

/// The types that a help can name, each with the operation that raises for a value of another type.
const struct {
    const char* name;
    void (*read)(const Properties& args, const std::string& key);
} TYPES[] = {{"bool", read<bool>},
             {"int", read<int>},
             {"unsigned", read<unsigned>},
             {"long", read<long long>},
             {"real", read<double>},
             {"text", read<std::string>},
             {"properties", read<Properties>},
             {"vector of bool", read<std::vector<bool>>},
             {"vector of int", read<std::vector<int>>},
             {"vector of unsigned", read<std::vector<unsigned>>},
             {"vector of long", read<std::vector<long long>>},
             {"vector of real", read<std::vector<double>>},
             {"vector of text", read<std::vector<std::string>>},
             {"vector of properties", read<std::vector<Properties>>}};

/// Reads the value as the command will. A type in other words is the command's own to check.
std::optional<std::string> findFaultOf(const CommandKey& key, const Properties& args) {
    try {
        for (const auto& type : TYPES)
            if (key.type == type.name)
                type.read(args, key.name);
    } catch (const InputError& error) {
        return error.what();
    }
    return std::nullopt;
}

bool takesAnyKeys(const CommandHelp& help) {
    return (help.summary.empty() && help.arguments.empty()) ||
           std::any_of(help.arguments.begin(), help.arguments.end(),
                       [](const CommandKey& key) { return key.name == CommandKey::ANY; });
}

std::optional<std::string> findUnknownKey(const Command& command, const Properties& args) {
    if (takesAnyKeys(command.getHelp()))
        return std::nullopt;
    std::vector<std::string> known;
    for (const CommandKey& key : command.getHelp().arguments)
        known.push_back(key.name);
    for (const std::string& key : args.getNames()) {
        if (key == Command::COMMAND_TAG || std::find(known.begin(), known.end(), key) != known.end())
            continue;
        const std::string nearest = NearestName::find(key, known);
        std::string text = "The command \"" + command.getName() + "\" takes no argument \"" +
                           StringHelper::toValidUtf8(std::string_view(key).substr(0, MAX_SHOWN_KEY)) + "\"";
        if (!nearest.empty())
            text += ", did you mean \"" + nearest + "\"?";
        if (StringHelper::toLower(key) == StringHelper::toLower(nearest))
            text += " Capital and small letters differ";
        return text;
    }
    return std::nullopt;
}

} // namespace

std::optional<std::string> CommandArguments::findFault(const Command& command, const Properties& args) {
    if (std::optional<std::string> fault = findUnknownKey(command, args))
        return fault;
    const std::vector<CommandKey>& keys = command.getHelp().arguments;
    for (const CommandKey& key : keys)
        if (key.required && key.name != CommandKey::ANY && !args.hasName(key.name))
            return "The command \"" + command.getName() + "\" needs the argument \"" + key.name + "\" (" +
                   key.type + "): " + key.meaning;
    for (const CommandKey& key : keys)
        if (args.hasName(key.name))
            if (std::optional<std::string> fault = findFaultOf(key, args))
                return fault;
    return std::nullopt;
}
