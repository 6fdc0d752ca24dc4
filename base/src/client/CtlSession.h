#pragma once

#include "client/CommandWords.h"
#include "client/CtlOptions.h"
#include "kernel/RpcClient.h"
#include "kernel/SessionHandshake.h"
#include "kernel/SessionRecord.h"

#include <map>
#include <string>
#include <vector>

class Properties;

/// The session that the options choose, and the connection to it. Shows what the server tells unasked.
class CtlSession {
public:
    /// What a command wants, as the server tells.
    struct Help {
        bool known = false;
        std::string nearest; ///< of an unknown command: what may have been meant
        std::string json;    ///< the description, JSON text
        std::vector<CommandWords::KeyType> arguments;
    };

    explicit CtlSession(const CtlOptions& options) : _options(options) {}

    /// @throw RpcClientError, UsageError
    void connect(SessionHandshake::Access access);
    RpcClient& getClient() { return _client; }
    const SessionRecord& getRecord() const { return _record; }

    const Help& getHelp(const std::string& command);
    std::vector<std::string> getCommandNames();
    /// Forgets what is known of the commands: the server may have got new ones.
    void forgetHelp();

    /// Called before and after text of the server is shown, so that a prompt can make room.
    std::function<void()> beforeText;
    std::function<void()> afterText;

private:
    SessionRecord choose() const;
    void onNotification(const std::string& method, std::string_view params);
    void show(const std::string& text);
    void showProgress(const Properties& progress);

    const CtlOptions& _options;
    RpcClient _client;
    SessionRecord _record;
    std::map<std::string, Help> _help;
    std::string _shownTask; ///< what of its progress was shown last
    std::string _shownState;
    long _shownPercent = 0;
};
