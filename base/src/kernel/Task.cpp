#include "kernel/Task.h"

#include "kernel/Properties.h"
#include "kernel/Raise.h"
#include "platform/Log.h"

#include <algorithm>
#include <exception>
#include <mutex>
#include <utility>
#include <vector>

namespace {

constexpr double TOLD_STEP = 0.01;

/// The tasks at work, the innermost last.
std::mutex tasksMutex;
std::vector<Task*> tasks;

} // namespace

Task::Task(std::string name) : _name(std::move(name)), _nExceptions(std::uncaught_exceptions()) {
    {
        const std::lock_guard guard(tasksMutex);
        tasks.push_back(this);
    }
    tell("started");
}

Task::~Task() {
    {
        const std::lock_guard guard(tasksMutex);
        std::erase(tasks, this);
    }
    try {
        const bool failed = std::uncaught_exceptions() > _nExceptions;
        tell(isCancelled() ? "cancelled" : failed ? "failed" : "finished");
    } catch (const std::exception& error) {
        OS::Log::instance("Default").warning("Task", "@0@: @1@", _name, error.what());
    }
}

void Task::setProgress(double fraction, const std::string& message) {
    if (isCancelled())
        raise(RecoverableError("\"" + _name + "\" was cancelled"));
    _progress = std::clamp(fraction, 0.0, 1.0);
    if (message == _message && _progress < _toldProgress + TOLD_STEP && _progress >= _toldProgress)
        return;
    _message = message;
    _toldProgress = _progress;
    tell("running");
}

bool Task::cancelCurrent() {
    const std::lock_guard guard(tasksMutex);
    if (tasks.empty())
        return false;
    tasks.back()->cancel();
    return true;
}

Subject& Task::getObservable() {
    static Subject* const observable = new Subject;
    return *observable;
}

void Task::tell(const char* state) {
    Properties properties;
    properties.set(NAME_TAG, _name);
    properties.set(STATE_TAG, state);
    properties.set(PROGRESS_TAG, _progress);
    properties.set(MESSAGE_TAG, _message);
    getObservable().notify(properties);
}
