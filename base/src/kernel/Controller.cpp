#include "kernel/Controller.h"

#include "kernel/Command.h"
#include "kernel/CommandRegistry.h"
#include "kernel/CommandThread.h"
#include "kernel/Error.h"
#include "kernel/MessagingGate.h"
#include "kernel/Raise.h"
#include "kernel/SignalHandler.h"
#include "kernel/SingletonCleaner.h"
#include "kernel/Subject.h"
#include "platform/Io.h"
#include "platform/Lock.h"
#include "platform/Log.h"
#include "platform/Mutex.h"
#include "platform/Process.h"
#include "platform/StringHelper.h"
#include "platform/Thread.h"

#include <condition_variable>
#include <cstdlib>
#include <cxxabi.h>
#include <deque>
#include <list>
#include <mutex>
#include <utility>

namespace {

constexpr const char* NAME_TAG = "Command";
/// Beyond this, a command that would run on a thread of its own runs on the main thread.
constexpr std::size_t MAX_THREADS = 16;
constexpr std::size_t MAX_SHOWN_NAME = 200;

Controller* singleton = nullptr;

/// Makes `response` the error that is being handled, as that of the command `name`. Within a catch block.
void takeCaughtError(const std::string& name, Properties& response) {
    try {
        throw;
    } catch (const Error& error) {
        response = error.getProperties();
    } catch (const std::exception& error) {
        response = RecoverableError(error.what()).getProperties();
    } catch (...) {
        response = NonRecoverableError("An exception of an unknown type left the command").getProperties();
    }
    response.set(NAME_TAG, name);
}

/// Ends a process that a command forked and that comes back out of the command: as a second server it would
/// answer in the place of this one. Nothing of the server's runs on its way: no exit function, no message.
void endForkedChild(int owner, const std::string& command) {
    const int self = Platform::process().getPid();
    if (self == owner)
        return;
    const std::string text = "\nThe process " + std::to_string(self) + ", forked by the command " + command +
                             " of the server " + std::to_string(owner) + ", came back from it: it ends\n";
    static_cast<void>(Platform::io().write(SignalHandler::getReportDescriptor(), text.data(), text.size()));
    std::_Exit(1);
}

/// Runs the command; what it throws stands in `response` afterwards.
void runCommand(Command& command, const Properties& args, Properties& response) {
    const std::string name = command.getName();
    response.set(NAME_TAG, name);
    const int owner = Platform::process().getPid();
    try {
        command.execute(args, response);
        endForkedChild(owner, name);
        return;
    } catch (const abi::__forced_unwind&) {
        throw; // the thread ends
    } catch (...) {
        endForkedChild(owner, name);
        takeCaughtError(name, response);
    }
    try {
        command.onError(args, response);
    } catch (const abi::__forced_unwind&) {
        throw;
    } catch (const std::exception& error) {
        OS::Log::instance("Default").warning("Command::onError", "@0@: @1@", name, error.what());
    }
}

/// Tells the observers of the end; what they throw becomes the error of a response that has none yet.
void tellEnd(Subject& observable, const std::string& name, Properties& response) {
    try {
        observable.notify(response);
    } catch (const abi::__forced_unwind&) {
        throw;
    } catch (...) {
        if (!Error::isErrorIn(response))
            takeCaughtError(name, response);
    }
}

void refuse(const std::string& name, const std::string& message, Properties& response) {
    response = InputError(message).getProperties();
    response.set(NAME_TAG, name);
}

/// Gives a client its answer; the client's trouble isn't the Controller's.
void answer(Controller::QueuedCommand& request, const Properties& response) {
    if (!request.onDone)
        return;
    try {
        request.onDone(response);
    } catch (const std::exception& error) {
        OS::Log::instance("Default").warning("Controller::answer", "A response was lost: @0@", error.what());
    }
}

void refuseStopped(Controller::QueuedCommand& request) {
    Properties response = RecoverableError("The server stops and takes no more commands").getProperties();
    response.set(NAME_TAG, Command::getCommandName(request.command));
    answer(request, response);
}

} // namespace

unsigned Controller::_serialCriticalLockCount = 0;

struct Controller::Impl {
    bool execute(const Properties& command, Properties& response, const std::string& client, bool tell);
    void runDistributed(Command& command, const std::string& name, const Properties& args,
                        Properties& response);
    void runLocally(Command& command, const Properties& args, Properties& response);
    void refuseUnknown(const std::string& name, Properties& response) const;

    void serve(QueuedCommand request);
    Command* findThreaded(const QueuedCommand& request);
    bool startThread(Command& command, QueuedCommand& request);
    void finishThreads(bool wait);
    void refuseQueued();
    bool waitForWork();
    std::optional<QueuedCommand> popRequest();
    void noteFinished();

    Mutex lock;
    CommandRegistry registry;
    Subject scatterObservable;
    Subject gatherObservable;
    Subject floatingPointObservable;
    Subject signalObservable;

    // Main thread only.
    unsigned depth = 0;
    bool mayThread = true;

    // Shared with other threads.
    mutable std::mutex mutex;
    std::condition_variable changed;
    std::deque<QueuedCommand> queue;
    std::list<CommandThread> threads; // entries are added, read by others and erased under the mutex
    std::optional<RunningCommand> running;
    bool stopped = false;
    bool hasFinishedThread = false;
};

namespace {

/// Counts nested commands for its scope.
class DepthScope {
public:
    explicit DepthScope(unsigned& depth) : _depth(depth) { ++_depth; }
    DepthScope(const DepthScope&) = delete;
    DepthScope& operator=(const DepthScope&) = delete;
    ~DepthScope() { --_depth; }

private:
    unsigned& _depth;
};

/// Shows the command at work to other threads for its scope.
class RunningScope {
public:
    RunningScope(std::mutex& mutex, std::optional<Controller::RunningCommand>& running,
                 const std::string& name, const std::string& client)
        : _mutex(mutex), _running(running) {
        Controller::RunningCommand info{name, client, std::chrono::system_clock::now()};
        const std::lock_guard guard(_mutex);
        _before = std::exchange(_running, std::move(info));
    }
    RunningScope(const RunningScope&) = delete;
    RunningScope& operator=(const RunningScope&) = delete;
    ~RunningScope() {
        const std::lock_guard guard(_mutex);
        _running = std::move(_before);
    }

private:
    std::mutex& _mutex;
    std::optional<Controller::RunningCommand>& _running;
    std::optional<Controller::RunningCommand> _before;
};

/// Locks messaging out for its scope.
class LocalScope {
public:
    explicit LocalScope(unsigned& count) : _count(count) {
        ++_count;
        MessagingGate::set(MessagingGate::LOCAL_COMMAND, true);
    }
    LocalScope(const LocalScope&) = delete;
    LocalScope& operator=(const LocalScope&) = delete;
    ~LocalScope() {
        --_count;
        MessagingGate::set(MessagingGate::LOCAL_COMMAND, _count != 0);
    }

private:
    unsigned& _count;
};

} // namespace

void Controller::Impl::refuseUnknown(const std::string& name, Properties& response) const {
    if (name.empty()) {
        refuse(name,
               std::string("The request names no command: a text under the key \"") + Command::COMMAND_TAG +
                   "\" was expected",
               response);
        return;
    }
    const std::string shown = StringHelper::toValidUtf8(std::string_view(name).substr(0, MAX_SHOWN_NAME));
    const std::string nearest = registry.getNearestName(name);
    refuse(shown,
           "Unknown command \"" + shown + "\"" +
               (nearest.empty() ? "" : ", did you mean \"" + nearest + "\"?"),
           response);
}

void Controller::Impl::runDistributed(Command& command, const std::string& name, const Properties& args,
                                      Properties& response) {
    Properties distributed = args;
    try {
        scatterObservable.notify(distributed);
    } catch (const abi::__forced_unwind&) {
        throw;
    } catch (...) {
        // The other ranks dropped the command as well, so they don't come to the gather either.
        takeCaughtError(name, response);
        return;
    }
    runCommand(command, distributed, response);
    tellEnd(gatherObservable, name, response);
    tellEnd(floatingPointObservable, name, response);
}

void Controller::Impl::runLocally(Command& command, const Properties& args, Properties& response) {
    {
        const LocalScope local(_serialCriticalLockCount);
        runCommand(command, args, response);
    }
    tellEnd(floatingPointObservable, command.getName(), response);
}

bool Controller::Impl::execute(const Properties& command, Properties& response, const std::string& client,
                               bool tell) {
    ORVEX_ASSERT_AS(Thread::isMain(), "Thread::isMain()", "Commands run on the main thread");
    const Lock guard(lock);
    response.clear();
    const std::string name = Command::getCommandName(command);
    Command* found = registry.find(name);
    if (found == nullptr) {
        refuseUnknown(name, response);
        return false;
    }
    const DepthScope nesting(depth);
    const RunningScope shown(mutex, running, name, client);
    if (tell)
        runDistributed(*found, name, command, response);
    else
        runCommand(*found, command, response);
    return !Error::isErrorIn(response);
}

void Controller::Impl::serve(QueuedCommand request) {
    Properties response;
    Command* threaded = nullptr;
    try {
        threaded = findThreaded(request);
    } catch (const abi::__forced_unwind&) {
        throw;
    } catch (...) {
        takeCaughtError(Command::getCommandName(request.command), response);
        answer(request, response);
        return;
    }
    if (threaded == nullptr) {
        execute(request.command, response, request.client, true);
    } else {
        if (mayThread && startThread(*threaded, request))
            return;
        const Lock guard(lock);
        const DepthScope nesting(depth);
        const RunningScope shown(mutex, running, threaded->getName(), request.client);
        runLocally(*threaded, request.command, response);
    }
    answer(request, response);
}

/// The command of the request if it is to run beside the main thread, else null.
Command* Controller::Impl::findThreaded(const QueuedCommand& request) {
    Command* command = registry.find(Command::getCommandName(request.command));
    return command != nullptr && command->shouldThread(request.command) ? command : nullptr;
}

/// Takes the request over when it gives true.
bool Controller::Impl::startThread(Command& command, QueuedCommand& request) {
    finishThreads(false);
    if (threads.size() >= MAX_THREADS)
        return false;
    CommandThread* thread = nullptr;
    {
        const std::lock_guard guard(mutex);
        thread = &threads.emplace_back(command, std::move(request), runCommand, [this] { noteFinished(); });
    }
    try {
        thread->start();
        return true;
    } catch (const std::system_error& error) {
        OS::Log::instance("Default").warning("Controller::startThread", "@0@ runs on the main thread: @1@",
                                             command.getName(), error.what());
    }
    request = std::move(thread->getRequest());
    const std::lock_guard guard(mutex);
    threads.pop_back();
    return false;
}

void Controller::Impl::noteFinished() {
    const std::lock_guard guard(mutex);
    hasFinishedThread = true;
    changed.notify_all();
}

/// Answers for the commands that ended on their threads; with `wait`, for all of them.
void Controller::Impl::finishThreads(bool wait) {
    {
        const std::lock_guard guard(mutex);
        if (!hasFinishedThread && !wait)
            return;
        hasFinishedThread = false;
    }
    std::list<CommandThread> ended;
    for (auto thread = threads.begin(); thread != threads.end();) {
        const auto next = std::next(thread);
        if (wait || thread->hasFinished()) {
            const std::lock_guard guard(mutex);
            ended.splice(ended.end(), threads, thread);
        }
        thread = next;
    }
    for (CommandThread& thread : ended) {
        thread.join();
        answer(thread.getRequest(), thread.getResponse());
    }
}

/// Waits for something to do. @return false when there won't be anything more
bool Controller::Impl::waitForWork() {
    std::unique_lock guard(mutex);
    changed.wait(guard, [this] { return stopped || hasFinishedThread || !queue.empty(); });
    return !stopped;
}

std::optional<Controller::QueuedCommand> Controller::Impl::popRequest() {
    const std::lock_guard guard(mutex);
    if (queue.empty() || stopped)
        return std::nullopt;
    std::optional<QueuedCommand> request(std::move(queue.front()));
    queue.pop_front();
    return request;
}

void Controller::Impl::refuseQueued() {
    std::deque<QueuedCommand> rest;
    {
        const std::lock_guard guard(mutex);
        rest.swap(queue);
    }
    for (QueuedCommand& request : rest)
        refuseStopped(request);
}

Controller& Controller::getSingleton() {
    if (singleton == nullptr)
        singleton = new Controller;
    return *singleton;
}

void Controller::reset() {
    delete std::exchange(singleton, nullptr);
}

Controller::Controller() : _impl(std::make_unique<Impl>()) {
    SingletonCleaner::registerReset(&Controller::reset);
}

Controller::~Controller() = default;

void Controller::registerCommand(Command* command) {
    _impl->registry.add(std::unique_ptr<Command>(command));
}

const Command* Controller::findCommand(const std::string& name) const {
    return _impl->registry.find(name);
}

std::vector<const Command*> Controller::getCommands() const {
    return _impl->registry.getAll();
}

std::string Controller::getNearestName(const std::string& name) const {
    return _impl->registry.getNearestName(name);
}

bool Controller::executeCommand(const Properties& command, Properties& response) {
    return _impl->execute(command, response, std::string(), _impl->depth == 0);
}

std::string Controller::execute(const Properties& command) {
    Properties response;
    _impl->execute(command, response, std::string(), true);
    return response.toString();
}

void Controller::setThreadedCommands(bool on) {
    _impl->mayThread = on;
}

void Controller::enqueue(QueuedCommand request) {
    {
        const std::lock_guard guard(_impl->mutex);
        if (!_impl->stopped) {
            _impl->queue.push_back(std::move(request));
            _impl->changed.notify_all();
            return;
        }
    }
    refuseStopped(request);
}

std::optional<Controller::RunningCommand> Controller::getRunningCommand() const {
    const std::lock_guard guard(_impl->mutex);
    if (_impl->running)
        return _impl->running;
    for (const CommandThread& thread : _impl->threads)
        if (!thread.hasFinished())
            return thread.getInfo();
    return std::nullopt;
}

void Controller::processCommands() {
    while (_impl->waitForWork()) {
        _impl->finishThreads(false);
        if (std::optional<QueuedCommand> request = _impl->popRequest())
            _impl->serve(std::move(*request));
    }
    _impl->finishThreads(true);
    _impl->refuseQueued();
}

void Controller::processQueuedCommands() {
    std::size_t count = 0;
    {
        const std::lock_guard guard(_impl->mutex);
        count = _impl->queue.size();
    }
    _impl->finishThreads(false);
    for (; count != 0; --count)
        if (std::optional<QueuedCommand> request = _impl->popRequest())
            _impl->serve(std::move(*request));
}

bool Controller::hasQueuedCommands() const {
    const std::lock_guard guard(_impl->mutex);
    return !_impl->queue.empty();
}

void Controller::stopProcessing() {
    const std::lock_guard guard(_impl->mutex);
    _impl->stopped = true;
    _impl->changed.notify_all();
}

Subject& Controller::getMasterScatterCommandObservable() {
    return _impl->scatterObservable;
}

Subject& Controller::getMasterGatherResponseObservable() {
    return _impl->gatherObservable;
}

Subject& Controller::getPostExecuteFloatingPointErrorObservable() {
    return _impl->floatingPointObservable;
}

Subject& Controller::getSignalRaisedObservable() {
    return _impl->signalObservable;
}

Mutex& Controller::getLock() {
    return _impl->lock;
}
