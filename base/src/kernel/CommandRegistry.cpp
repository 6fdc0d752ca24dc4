#include "kernel/CommandRegistry.h"

#include "kernel/Command.h"
#include "kernel/NearestName.h"
#include "kernel/Raise.h"

CommandRegistry::CommandRegistry() = default;
CommandRegistry::~CommandRegistry() = default;

void CommandRegistry::add(std::unique_ptr<Command> command) {
    ORVEX_ASSERT_AS(command != nullptr, "command", "There is no command to register");
    const std::string name = command->getName();
    ORVEX_ASSERT_AS(!name.empty(), "!name.empty()", "A command needs a name");
    const std::lock_guard guard(_mutex);
    ORVEX_ASSERT_AS(_byName.count(name) == 0, "_byName.count(name) == 0",
                    "The command \"" + name + "\" is registered already");
    _commands.push_back(std::move(command));
    _byName.emplace(name, _commands.back().get());
}

Command* CommandRegistry::find(const std::string& name) const {
    const std::lock_guard guard(_mutex);
    const auto entry = _byName.find(name);
    return entry == _byName.end() ? nullptr : entry->second;
}

std::vector<const Command*> CommandRegistry::getAll() const {
    const std::lock_guard guard(_mutex);
    std::vector<const Command*> all;
    all.reserve(_commands.size());
    for (const std::unique_ptr<Command>& command : _commands)
        if (!command->isInternal())
            all.push_back(command.get());
    return all;
}

std::string CommandRegistry::getNearestName(const std::string& name) const {
    std::vector<std::string> names;
    for (const Command* command : getAll())
        names.push_back(command->getName());
    return NearestName::find(name, names);
}
