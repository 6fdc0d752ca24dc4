#include "kernel/Task.h"

#include "kernel/MessagingGate.h"
#include "kernel/Properties.h"
#include "kernel/Raise.h"
#include "platform/Log.h"
#include "platform/Thread.h"

#include <algorithm>
#include <cmath>
#include <exception>
#include <mutex>
#include <utility>
#include <vector>

namespace {

constexpr double TOLD_STEP = 0.01;
constexpr double MEETING_PERIOD = 0.1; ///< [s]
/// Bounds the wait when calls become slower than those that were measured.
constexpr unsigned MAX_INTERVAL = 32;

/// The tasks at work, of a thread the innermost last; guarded, with what they told, by the mutex.
std::mutex tasksMutex;
std::vector<Task*> tasks;

Task::Agreement agreement;
std::function<void()> serving;

} // namespace

Task::Task(std::string name)
    : _name(std::move(name)), _thread(std::this_thread::get_id()),
      _onMainThread(Thread::isMain()), _told{_name, {}, 0.0, _thread},
      _nExceptions(std::uncaught_exceptions()) {
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
    const bool failed = std::uncaught_exceptions() > _nExceptions;
    tell(!failed ? "finished" : isCancelled() ? "cancelled" : "failed");
}

void Task::advance(double fraction, const std::string& message) {
    setProgress(fraction, message);
    if (--_callsLeft == 0)
        meet();
}

void Task::setProgress(double fraction, const std::string& message) {
    if (!std::isnan(fraction))
        _progress = std::clamp(fraction, 0.0, 1.0);
    if (message == _message && _progress < _toldProgress + TOLD_STEP && _progress >= _toldProgress)
        return;
    _message = message;
    _toldProgress = _progress;
    tell("running");
}

void Task::meet() {
    const Clock::time_point now = Clock::now();
    if (_onMainThread && serving)
        serving();
    unsigned interval = isCancelled() ? 0 : proposeInterval(now);
    const bool collective = _onMainThread && agreement && !MessagingGate::has(MessagingGate::LOCAL_COMMAND);
    if (collective)
        interval = agreement(interval);
    // Also after an error: a rank that goes on in spite of it meets the others at once.
    _interval = _callsLeft = std::max(interval, 1U);
    _lastMeeting = now;
    if (interval != 0)
        return;
    cancel();
    raise(RecoverableError("\"" + _name + "\" " + WAS_CANCELLED, Error::RECOVERABLE_SEVERITY, Properties(),
                           Error::DEFAULT_ERROR_TYPE, collective));
}

/// From what the calls since the last meeting took. It grows slowly, since the next calls may be others.
unsigned Task::proposeInterval(Clock::time_point now) const {
    const double elapsed = std::chrono::duration<double>(now - _lastMeeting).count();
    const double wanted = elapsed > 0.0 ? MEETING_PERIOD * _interval / elapsed : double(MAX_INTERVAL);
    return static_cast<unsigned>(std::clamp(wanted, 1.0, double(std::min(2 * _interval, MAX_INTERVAL))));
}

Task* Task::findCurrent() {
    const auto found =
        std::find_if(tasks.rbegin(), tasks.rend(), [](const Task* task) { return task->_onMainThread; });
    return found != tasks.rend() ? *found : tasks.empty() ? nullptr : tasks.back();
}

std::optional<Task::Report> Task::getCurrent() {
    const std::lock_guard guard(tasksMutex);
    const Task* const current = findCurrent();
    return current ? std::optional(current->_told) : std::nullopt;
}

bool Task::cancelCurrent() {
    const std::lock_guard guard(tasksMutex);
    const Task* const current = findCurrent();
    if (!current)
        return false;
    for (Task* const task : tasks)
        if (task->_thread == current->_thread)
            task->cancel();
    return true;
}

bool Task::cancelOn(std::thread::id thread, std::chrono::steady_clock::time_point begin) {
    const std::lock_guard guard(tasksMutex);
    bool found = false;
    for (Task* const task : tasks) {
        if (task->_thread != thread || task->_began < begin)
            continue;
        task->cancel();
        found = true;
    }
    return found;
}

Subject& Task::getObservable() {
    static Subject* const observable = new Subject;
    return *observable;
}

void Task::setAgreement(Agreement other) {
    agreement = std::move(other);
}

void Task::setServing(std::function<void()> other) {
    serving = std::move(other);
}

/// Throws nothing: the other ranks don't know of an observer's fault.
void Task::tell(const char* state) {
    try {
        {
            const std::lock_guard guard(tasksMutex);
            _told.message = _message;
            _told.progress = _progress;
        }
        Properties properties;
        properties.set(NAME_TAG, _name);
        properties.set(STATE_TAG, state);
        properties.set(PROGRESS_TAG, _progress);
        properties.set(MESSAGE_TAG, _message);
        getObservable().notify(properties);
    } catch (const std::exception& error) {
        OS::Log::instance("Default").warning("Task::tell", "@0@: @1@", _name, error.what());
    }
}
