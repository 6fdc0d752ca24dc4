#include "kernel/Command.h"

#include "kernel/Error.h"
#include "kernel/Properties.h"

#include <utility>

Command::Command(CommandHelp help, Access access) : _help(std::move(help)), _access(access) {}

Command::~Command() = default;

bool Command::isStateChanger() const {
    return true;
}

bool Command::isThreaded(const Properties&) const {
    return false;
}

bool Command::shouldThread(const Properties& args) const {
    return isThreaded(args);
}

bool Command::hasResponse() const {
    return true;
}

void Command::onError(const Properties&, Properties&) {}

void Command::addSelfTo(Properties& properties) const {
    properties.set(COMMAND_TAG, getName());
}

std::string Command::getCommandName(const Properties& properties) {
    if (!properties.hasName(COMMAND_TAG))
        return {};
    try {
        return properties.getString(COMMAND_TAG);
    } catch (const InputError&) {
        return {};
    }
}

bool QueryCommand::isStateChanger() const {
    return false;
}

void NoResultCommand::execute(const Properties& args, Properties&) {
    execute(args);
}

bool NoResultCommand::hasResponse() const {
    return false;
}
