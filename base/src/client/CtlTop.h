#pragma once

#include "client/CommandWords.h"
#include "client/CtlOptions.h"
#include "client/TopFrame.h"
#include "client/TopView.h"
#include "platform/Terminal.h"

#include <memory>
#include <optional>
#include <string>
#include <vector>

class CtlConsole;
class CtlSession;
class TopFeed;

/// "orvexctl top": the job at work, again and again on a terminal, or as plain text.
class CtlTop {
public:
    /// The session is connected. All borrowed.
    CtlTop(const CtlOptions& options, CtlSession& session, CtlConsole& console);
    CtlTop(const CtlTop&) = delete;
    CtlTop& operator=(const CtlTop&) = delete;
    ~CtlTop();

    /// @return an ExitCode @throw UsageError, RpcClientError, OutputError
    int run(const std::vector<CommandWords::Word>& arguments);

private:
    void parse(const std::vector<CommandWords::Word>& arguments);
    int runPlain();
    int runScreen();
    void watch(Platform::Terminal& terminal);
    void showFrame(Platform::Terminal& terminal);
    bool onKey(int key, unsigned rows);
    void onPromptKey(int key);
    void takeNews();

    const CtlOptions& _options;
    CtlSession& _session;
    CtlConsole& _console;
    std::unique_ptr<TopFeed> _feed;
    std::optional<unsigned> _count; ///< of plain frames; 0: until it is ended
    TopView _view;
    TopFrame _frame;
    bool _hasFrame = false;
    std::vector<std::string> _notices;
    // ---- [s] of the clock of Platform::Time.
    double _frameTime = 0.0;
    double _noticeTime = 0.0;
    double _nextTime = 0.0;
};
