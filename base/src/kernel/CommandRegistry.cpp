#include "kernel/CommandRegistry.h"

#include "kernel/Command.h"
#include "kernel/Raise.h"
#include "platform/StringHelper.h"

#include <algorithm>
#include <numeric>
#include <utility>

namespace {

/// Nobody types longer names, and the distance costs the product of both lengths.
constexpr std::size_t MAX_COMPARED_LENGTH = 64;

/// Characters to insert, delete or replace to make `b` of `a`.
std::size_t editDistance(const std::string& a, const std::string& b) {
    std::vector<std::size_t> row(b.size() + 1);
    std::iota(row.begin(), row.end(), std::size_t(0));
    for (std::size_t i = 1; i <= a.size(); ++i) {
        std::size_t diagonal = std::exchange(row[0], i);
        for (std::size_t j = 1; j <= b.size(); ++j) {
            const std::size_t replaced = diagonal + (a[i - 1] == b[j - 1] ? 0 : 1);
            diagonal = row[j];
            row[j] = std::min({replaced, row[j] + 1, row[j - 1] + 1});
        }
    }
    return row.back();
}

} // namespace

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
        all.push_back(command.get());
    return all;
}

std::string CommandRegistry::getNearestName(const std::string& name) const {
    if (name.empty() || name.size() > MAX_COMPARED_LENGTH)
        return {};
    const std::string wanted = StringHelper::toLower(name);
    // A third of the letters may differ; a beginning of a name is near in any case.
    std::size_t best = std::max<std::size_t>(1, wanted.size() / 3) + 1;
    std::string nearest;
    for (const Command* command : getAll()) {
        const std::string candidate = StringHelper::toLower(command->getName());
        const bool isBeginning = wanted.size() >= 3 && candidate.starts_with(wanted);
        const std::size_t distance = isBeginning ? 1 : editDistance(wanted, candidate);
        if (distance < best) {
            best = distance;
            nearest = command->getName();
        }
    }
    return nearest;
}
