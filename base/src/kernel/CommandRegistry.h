#pragma once

#include <memory>
#include <mutex>
#include <string>
#include <unordered_map>
#include <vector>

class Command;

/// The commands of a Controller by name. Commands are added by the main thread and asked for by any. Private
/// to the kernel.
class CommandRegistry {
public:
    CommandRegistry();
    CommandRegistry(const CommandRegistry&) = delete;
    CommandRegistry& operator=(const CommandRegistry&) = delete;
    ~CommandRegistry();

    void add(std::unique_ptr<Command> command);
    Command* find(const std::string& name) const;
    /// Those that clients may ask for, in the order of their registration.
    std::vector<const Command*> getAll() const;
    std::string getNearestName(const std::string& name) const;

private:
    mutable std::mutex _mutex;
    std::vector<std::unique_ptr<Command>> _commands;
    std::unordered_map<std::string, Command*> _byName;
};
