#pragma once

#include "kernel/KernelExport.h"

#include <string>
#include <vector>

class Properties;

/// One key of a command's arguments or results, for people who ask what a command wants.
struct CommandKey {
    /// As the name of an argument: the command takes any further keys.
    static constexpr const char* ANY = "*";

    std::string name;
    std::string type; ///< "bool", "int", "unsigned", "long", "real", "text", "properties", "vector of ..."
    std::string meaning;
    bool required = true;
};

/// The summary, arguments and results of a command, as `orvexctl list-commands` tells them. It lives beside
/// the command, in its constructor.
///
/// A request is checked against the arguments before any rank runs the command: a key that isn't among them,
/// one that is missing and a value of another type are refused. Of a command without any help nothing is
/// known: it takes any keys.
struct CommandHelp {
    std::string summary;
    std::vector<CommandKey> arguments = {};
    std::vector<CommandKey> results = {};
};

/// Something that a client can ask the server to do. A command is a class without fields of its own;
/// arguments and results are keys of Properties.
///
/// execute() runs on the main thread of every rank at the same time, unless the command is threaded.
class ORVEX_KERNEL_EXPORT Command {
public:
    static constexpr const char* COMMAND_TAG = "command";

    /// Tells whose requests a command takes.
    enum class Access {
        CLIENTS,
        SYSTEM ///< the system itself: clients hear that there is no such command, and no list names it
    };

    explicit Command(CommandHelp help = {}, Access access = Access::CLIENTS);
    Command(const Command&) = delete;
    Command& operator=(const Command&) = delete;

    virtual ~Command();
    virtual void execute(const Properties& args, Properties& response) = 0;
    virtual std::string getName() const = 0;
    /// Whether the command may change the simulation: true unless overridden.
    virtual bool isStateChanger() const;
    /// Whether the command, with these arguments, is able to run beside the main thread: on a thread of its
    /// own of the serial or master process, not distributed and without messaging. False unless overridden.
    virtual bool isThreaded(const Properties& args) const;
    /// Tells whether this call should run on a thread of its own. isThreaded(args) unless overridden.
    virtual bool shouldThread(const Properties& args) const;
    /// Whether the response holds anything beside an error: true unless overridden.
    virtual bool hasResponse() const;
    /// Called after execute() threw and the error stands in `response`. Does nothing unless overridden.
    virtual void onError(const Properties& args, Properties& response);

    const CommandHelp& getHelp() const { return _help; }
    /// Whether only the system itself may ask for the command.
    bool isInternal() const { return _access == Access::SYSTEM; }

    /// Writes the name under COMMAND_TAG.
    void addSelfTo(Properties& properties) const;
    /// The name in `properties`, empty when there is none.
    static std::string getCommandName(const Properties& properties);

private:
    CommandHelp _help;
    Access _access;
};

/// A command that only asks: it changes no state.
class ORVEX_KERNEL_EXPORT QueryCommand : public Command {
public:
    using Command::Command;
    bool isStateChanger() const override;
};

/// A command without results.
class ORVEX_KERNEL_EXPORT NoResultCommand : public Command {
public:
    using Command::Command;
    void execute(const Properties& args, Properties& response) override;
    bool hasResponse() const override;
    virtual void execute(const Properties& args) = 0;
};
