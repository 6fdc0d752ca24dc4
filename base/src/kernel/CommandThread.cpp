#include "kernel/CommandThread.h"

#include "kernel/Command.h"

#include <utility>

CommandThread::CommandThread(Command& command, Controller::QueuedCommand request, Work work,
                             std::function<void()> finished)
    : _command(command), _request(std::move(request)), _work(std::move(work)),
      _onFinished(std::move(finished)), _info{command.getName(), _request.client,
                                              std::chrono::system_clock::now()},
      _thread(*this, "orvex-command") {}

CommandThread::~CommandThread() = default;

Controller::RunningCommand CommandThread::getInfo() const {
    Controller::RunningCommand info = _info;
    info.thread = _threadId.load();
    return info;
}

void CommandThread::run() {
    _threadId = std::this_thread::get_id();
    if (_request.onBegin)
        _request.onBegin();
    _outcome = _work(_command, _request.command);
    _finished.store(true, std::memory_order_release);
    _onFinished();
}
