#pragma once

#include "client/CommandWords.h"
#include "client/CtlOptions.h"
#include "kernel/server/RpcClient.h"
#include "kernel/server/SessionHandshake.h"
#include "kernel/server/SessionRecord.h"

#include <map>
#include <string>
#include <vector>

class CtlConsole;
class Properties;

/// The session that the options choose, and the connection to it. Shows what the server tells unasked.
class CtlSession {
public:
    /// The arguments of a command, as the server tells them.
    struct Help {
        bool known = false;
        std::string nearest; ///< of an unknown command: what may have been meant
        std::string json;    ///< the description, JSON text
        std::vector<CommandWords::KeyType> arguments;
        std::vector<CommandWords::KeyType> results;
    };

    CtlSession(const CtlOptions& options, CtlConsole& console) : _options(options), _console(console) {}

    /// One that is refused is tried once more, for a server that starts or a client that leaves at this
    /// moment.
    /// @throw RpcClientError, UsageError
    void connect(SessionHandshake::Access access);
    RpcClient& getClient() { return _client; }
    const SessionRecord& getRecord() const { return _record; }

    const Help& getHelp(const std::string& command);
    std::vector<std::string> getCommandNames();
    /// Forgets what is known of the commands: the server may have got new ones.
    void forgetHelp();
    /// Asks the server over a second connection to cancel `command`, unless another client's is at work.
    /// @return in words what came of it
    std::string cancel(const std::string& command) const;

private:
    SessionRecord choose() const;
    void refuseForeignLoopback() const;
    RpcClient::Target locate() const;
    void tryToConnect(SessionHandshake::Access access);
    void onNotification(const std::string& method, std::string_view params);
    void showProgress(const Properties& progress);

    const CtlOptions& _options;
    CtlConsole& _console;
    RpcClient _client;
    SessionRecord _record;
    std::map<std::string, Help> _help;
    std::string _shownTask; ///< what of its progress was shown last
    std::string _shownState;
    long _shownPercent = 0;
};
