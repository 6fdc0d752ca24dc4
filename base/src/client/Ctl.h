#pragma once

#include "client/CommandWords.h"
#include "client/CtlOptions.h"
#include "client/CtlSession.h"

#include <iosfwd>
#include <string>
#include <vector>

/// Does what the options ask for.
class Ctl {
public:
    explicit Ctl(const CtlOptions& options) : _options(options), _session(options) {}

    /// @return an ExitCode
    int run();

private:
    int dispatch();
    int runScript(std::istream& script, const std::string& name);
    int runPrompt();
    /// One line of a script or prompt.
    int runLine(const std::vector<CommandWords::Word>& words);
    int runCommand(const std::string& name, const std::vector<CommandWords::Word>& arguments);
    int runOwn(const std::string& name, const std::vector<CommandWords::Word>& arguments);
    int showStatus();
    int listSessions() const;
    int listCommands(const std::vector<CommandWords::Word>& arguments);
    int stop();
    int waitForEnd(bool commandRuns);
    int callServer(const std::string& method, const std::string& params);
    int print(const RpcClient::Reply& reply) const;
    void printError(const RpcClient::Reply& reply) const;

    const CtlOptions& _options;
    CtlSession _session;
};
