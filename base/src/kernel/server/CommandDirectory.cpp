#include "kernel/server/CommandDirectory.h"

#include "kernel/Command.h"
#include "kernel/Controller.h"
#include "kernel/Properties.h"

#include <algorithm>
#include <iterator>

namespace {

Properties describeKey(const CommandKey& key) {
    Properties properties;
    properties.set("name", key.name);
    properties.set("type", key.type);
    properties.set("meaning", key.meaning);
    properties.set("required", key.required);
    return properties;
}

Properties describeCommand(const Command& command) {
    const CommandHelp& help = command.getHelp();
    std::vector<Properties> arguments;
    std::vector<Properties> results;
    std::transform(help.arguments.begin(), help.arguments.end(), std::back_inserter(arguments), describeKey);
    std::transform(help.results.begin(), help.results.end(), std::back_inserter(results), describeKey);
    Properties properties;
    properties.set("name", command.getName());
    properties.set("summary", help.summary);
    properties.set("changesState", command.isStateChanger());
    properties.set("arguments", arguments);
    properties.set("results", results);
    return properties;
}

} // namespace

Properties CommandDirectory::describe(const Properties& params) {
    const Controller& controller = Controller::getSingleton();
    std::vector<Properties> commands;
    Properties result;
    if (params.hasName("name")) {
        const std::string name = params.getString("name");
        const Command* command = controller.findCommand(name);
        if (command != nullptr && !command->isInternal())
            commands.push_back(describeCommand(*command));
        else
            result.set("nearest", controller.getNearestName(name));
    } else {
        for (const Command* command : controller.getCommands())
            commands.push_back(describeCommand(*command));
    }
    result.set("commands", commands);
    return result;
}
