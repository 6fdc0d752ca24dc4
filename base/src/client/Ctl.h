#pragma once

#include "client/CommandWords.h"
#include "client/CtlConsole.h"
#include "client/CtlOptions.h"
#include "client/CtlSession.h"

#include <iosfwd>
#include <set>
#include <string>
#include <vector>

/// Does what the options ask for.
class Ctl {
public:
    explicit Ctl(const CtlOptions& options) : _options(options), _session(options, _console) {}

    /// @return an ExitCode
    int run();

private:
    int dispatch();
    int runScript(std::istream& script, const std::string& name);
    int runPrompt();
    int help(const std::vector<CommandWords::Word>& arguments);
    /// One line of a script or prompt.
    int runLine(const std::vector<CommandWords::Word>& words);
    int runCommand(const std::string& name, const std::vector<CommandWords::Word>& arguments);
    int runOwn(const std::string& name, const std::vector<CommandWords::Word>& arguments);
    int showStatus();
    int listSessions();
    int listCommands(const std::vector<CommandWords::Word>& arguments);
    int where(const std::vector<CommandWords::Word>& arguments);
    int report(const std::vector<CommandWords::Word>& arguments);
    int cancel(const std::vector<CommandWords::Word>& arguments);
    int trace(const std::vector<CommandWords::Word>& arguments);
    int printStanding(const RpcClient::Reply& reply);
    RpcClient::Reply sendDeadline();
    int stop();
    int waitForEnd(bool commandRuns);
    int showBills(const std::vector<CommandWords::Word>& arguments);
    int callServer(const std::string& method, const std::string& params);
    int print(const RpcClient::Reply& reply);
    void printError(const RpcClient::Reply& reply);
    bool tellsSuccess(const std::string& name, const std::string& response);
    int printResponse(const std::string& name, const std::string& response);
    /// Prints JSON text: as it is, or for people without the keys in `hidden`.
    void printObject(const std::string& json, const std::set<std::string>& hidden = {"Command"});

    const CtlOptions& _options;
    CtlConsole _console;
    CtlSession _session;
    bool _asksForBills = false;
    bool _interrupted = false; ///< Ctrl-C was pressed while a command ran: no further one follows
};
