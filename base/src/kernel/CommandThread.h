#pragma once

#include "kernel/Controller.h"
#include "platform/Runnable.h"
#include "platform/Thread.h"

#include <atomic>
#include <functional>

class Command;

/// A queued command at work on a thread of its own. Private to the kernel.
class CommandThread : public Runnable {
public:
    using Work = std::function<Controller::Outcome(Command&, const Properties& args)>;

    /// @param work      runs the command; throws nothing
    /// @param finished  called at the end, on the thread
    CommandThread(Command& command, Controller::QueuedCommand request, Work work,
                  std::function<void()> finished);
    ~CommandThread() override;

    /// @throw std::system_error when the system has no thread left
    void start() { _thread.start(); }
    void join() { _thread.join(); }
    bool hasFinished() const { return _finished.load(std::memory_order_acquire); }
    Controller::RunningCommand getInfo() const;
    /// The request, back from the thread; to be called once it has finished.
    Controller::QueuedCommand& getRequest() { return _request; }
    const Controller::Outcome& getOutcome() const { return _outcome; }

    void run() override;
    /// A command runs to its end.
    void stop() override {}

private:
    Command& _command;
    Controller::QueuedCommand _request;
    Work _work;
    std::function<void()> _onFinished;
    Controller::RunningCommand _info;
    Controller::Outcome _outcome;
    std::atomic<std::thread::id> _threadId;
    std::atomic<bool> _finished{false};
    Thread _thread; // last: its destructor waits for run()
};
