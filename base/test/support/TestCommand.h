#pragma once

#include "kernel/Command.h"

#include <functional>
#include <string>
#include <utility>

/// A command that does what the test gives it.
class TestCommand : public Command {
public:
    using Body = std::function<void(const Properties& args, Properties& response)>;
    TestCommand(std::string name, Body body, CommandHelp help = {})
        : Command(std::move(help)), _name(std::move(name)), _body(std::move(body)) {}
    void execute(const Properties& args, Properties& response) override { _body(args, response); }
    std::string getName() const override { return _name; }

private:
    const std::string _name;
    const Body _body;
};
