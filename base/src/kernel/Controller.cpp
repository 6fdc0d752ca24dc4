#include "kernel/Controller.h"

#include "kernel/Command.h"
#include "kernel/CommandArguments.h"
#include "kernel/CommandRegistry.h"
#include "kernel/CommandThread.h"
#include "kernel/Error.h"
#include "kernel/MessagingGate.h"
#include "kernel/Raise.h"
#include "kernel/ReportStream.h"
#include "kernel/SingletonCleaner.h"
#include "kernel/Subject.h"
#include "platform/Lock.h"
#include "platform/Log.h"
#include "platform/Mutex.h"
#include "platform/Process.h"
#include "platform/StackTracer.h"
#include "platform/StringHelper.h"
#include "platform/Thread.h"

#include <condition_variable>
#include <cstdlib>
#include <cxxabi.h>
#include <deque>
#include <list>
#include <mutex>
#include <new>
#include <stdexcept>
#include <system_error>
#include <typeinfo>
#include <utility>

namespace {

constexpr const char* NAME_TAG = "Command";
/// Beyond this, a command that would run on a thread of its own runs on the main thread.
constexpr std::size_t MAX_THREADS = 16;
constexpr std::size_t MAX_SHOWN_NAME = 200;

Controller* singleton = nullptr;

using Outcome = Controller::Outcome;

/// The text of the exception, or else its type: what() may be empty or null.
std::string textOf(const std::exception& error) {
    const char* const text = error.what();
    if (text != nullptr && *text != '\0')
        return text;
    return "An exception of type " + Platform::StackTracer::demangle(typeid(error).name()) +
           " without a message";
}

/// An exception from outside the Error family as an error that leaves the server running.
Properties describe(const std::exception& error, const char* kind) {
    Properties properties;
    properties.set(Error::KIND_TAG, kind);
    return RecoverableError(textOf(error), Error::RECOVERABLE_SEVERITY, properties).toResponse();
}

/// The error that is being handled. Within a catch block.
Properties describeCaughtError() {
    try {
        throw;
    } catch (const Error& error) {
        return error.toResponse();
    } catch (const std::bad_alloc& error) {
        return describe(error, Error::SYSTEM_KIND);
    } catch (const std::system_error& error) {
        return describe(error, Error::SYSTEM_KIND);
    } catch (const std::logic_error& error) {
        return describe(error, Error::INTERNAL_KIND);
    } catch (const std::exception& error) {
        return describe(error, Error::SOLVER_KIND);
    } catch (...) {
        const std::type_info* const type = abi::__cxa_current_exception_type();
        return NonRecoverableError(
                   "An exception of " +
                   (type ? "type " + Platform::StackTracer::demangle(type->name()) : "an unknown type") +
                   " left the command")
            .toResponse();
    }
}

Outcome makeFailure(Outcome::Status status, const std::string& name, Properties error) {
    error.set(NAME_TAG, name);
    return {status, std::move(error)};
}

/// The failure of the command `name` by the error that is being handled. Within a catch block.
Outcome makeCaughtFailure(const std::string& name) {
    return makeFailure(Outcome::FAILED, name, describeCaughtError());
}

/// Ends a process that a command forked and that comes back out of the command: as a second server it would
/// answer in the place of this one. Nothing of the server's runs on its way: no exit function, no message.
void endForkedChild(int owner, const std::string& command) {
    const int self = Platform::process().getPid();
    if (self == owner)
        return;
    const std::string text = "\nThe process " + std::to_string(self) + ", forked by the command " + command +
                             " of the server " + std::to_string(owner) + ", came back from it: it ends\n";
    ReportStream::write(text);
    std::_Exit(1);
}

/// Lets the command add to the error that it ended with. What it takes away comes back.
void tellError(Command& command, const Properties& args, Properties& response) {
    const Properties error = response;
    try {
        command.onError(args, response);
    } catch (const abi::__forced_unwind&) {
        throw;
    } catch (const std::exception& fault) {
        OS::Log::instance("Default").warning("Command::onError", "@0@: @1@", command.getName(),
                                             textOf(fault));
    }
    response.merge(error, Properties::Mode::KEEP);
    Error::complete(response, Error::getMessage(error), Error::SOLVER_KIND);
}

Outcome runCommand(Command& command, const Properties& args) {
    const std::string name = command.getName();
    Outcome outcome;
    outcome.response.set(NAME_TAG, name);
    const int owner = Platform::process().getPid();
    try {
        command.execute(args, outcome.response);
        endForkedChild(owner, name);
        return outcome;
    } catch (const abi::__forced_unwind&) {
        throw; // the thread ends
    } catch (...) {
        endForkedChild(owner, name);
        outcome = makeCaughtFailure(name);
    }
    tellError(command, args, outcome.response);
    return outcome;
}

/// Gives a client its answer; the client's trouble isn't the Controller's.
void answer(Controller::QueuedCommand& request, const Outcome& outcome) {
    if (!request.onDone)
        return;
    try {
        request.onDone(outcome);
    } catch (const std::exception& error) {
        OS::Log::instance("Default").warning("Controller::answer", "A response was lost: @0@", textOf(error));
    }
}

void tellBegin(const Controller::QueuedCommand& request) {
    if (request.onBegin)
        request.onBegin();
}

void refuseStopped(Controller::QueuedCommand& request) {
    const SystemError error("The server stops and takes no more commands");
    answer(request,
           makeFailure(Outcome::STOPPING, Command::getCommandName(request.command), error.toResponse()));
}

} // namespace

unsigned Controller::_serialCriticalLockCount = 0;

struct Controller::Impl {
    /// By which a request comes.
    enum class Road { CLIENT, INSIDE, SCATTERED };

    Outcome execute(const Properties& command, Road road, bool tell);
    Outcome run(Command& command, const Properties& args, const std::string& client, bool tell);
    Outcome runDistributed(Command& command, const Properties& args);
    Outcome runLocally(Command& command, const QueuedCommand& request);
    void tellEnd(Subject& observable, const std::string& name, Outcome& outcome);
    std::optional<Outcome> findRefusal(const Command* found, const Properties& command, Road road) const;
    Outcome refuseUnknown(const std::string& name) const;

    void serve(QueuedCommand request);
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
    Outcome* told = nullptr; ///< whose end the observers are being told of

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
        if (_running)
            info.outermostBegan = _running->outermostBegan;
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

Outcome Controller::Impl::refuseUnknown(const std::string& name) const {
    const std::string shown = StringHelper::toValidUtf8(std::string_view(name).substr(0, MAX_SHOWN_NAME));
    const std::string nearest = registry.getNearestName(name);
    const InputError error(name.empty()
                               ? std::string("The request names no command: a text under the key \"") +
                                     Command::COMMAND_TAG + "\" was expected"
                               : "Unknown command \"" + shown + "\"" +
                                     (nearest.empty() ? "" : ", did you mean \"" + nearest + "\"?"));
    return makeFailure(Outcome::UNKNOWN_COMMAND, shown, error.toResponse());
}

/// Why the request can't be run, if it can't: found here, before any other rank hears of it. What another
/// rank has sent was checked there, and its observers may have added to it.
std::optional<Outcome> Controller::Impl::findRefusal(const Command* found, const Properties& command,
                                                     Road road) const {
    if (found == nullptr || (found->isInternal() && road == Road::CLIENT))
        return refuseUnknown(Command::getCommandName(command));
    if (road == Road::SCATTERED)
        return std::nullopt;
    if (const std::optional<std::string> fault = CommandArguments::findFault(*found, command))
        return makeFailure(Outcome::WRONG_ARGUMENTS, found->getName(), InputError(*fault).toResponse());
    return std::nullopt;
}

/// Tells the observers of the end; what they throw becomes the error of an outcome that has none yet.
void Controller::Impl::tellEnd(Subject& observable, const std::string& name, Outcome& outcome) {
    Outcome* const before = std::exchange(told, &outcome);
    try {
        observable.notify(outcome.response);
    } catch (const abi::__forced_unwind&) {
        throw;
    } catch (...) {
        if (!outcome.hasFailed())
            outcome = makeCaughtFailure(name);
    }
    told = before;
}

Outcome Controller::Impl::runDistributed(Command& command, const Properties& args) {
    const std::string name = command.getName();
    Properties distributed = args;
    try {
        scatterObservable.notify(distributed);
    } catch (const abi::__forced_unwind&) {
        throw;
    } catch (...) {
        // The other ranks dropped the command as well, so they don't come to the gather either.
        return makeCaughtFailure(name);
    }
    Outcome outcome = runCommand(command, distributed);
    tellEnd(gatherObservable, name, outcome);
    tellEnd(floatingPointObservable, name, outcome);
    return outcome;
}

/// Runs a command that would rather have a thread of its own on the main thread: on this rank alone.
Outcome Controller::Impl::runLocally(Command& command, const QueuedCommand& request) {
    const Lock guard(lock);
    Outcome outcome;
    {
        const LocalScope local(_serialCriticalLockCount);
        outcome = run(command, request.command, request.client, false);
    }
    tellEnd(floatingPointObservable, command.getName(), outcome);
    return outcome;
}

Outcome Controller::Impl::run(Command& command, const Properties& args, const std::string& client,
                              bool tell) {
    const Lock guard(lock);
    const DepthScope nesting(depth);
    const RunningScope shown(mutex, running, command.getName(), client);
    return tell ? runDistributed(command, args) : runCommand(command, args);
}

Outcome Controller::Impl::execute(const Properties& command, Road road, bool tell) {
    ORVEX_ASSERT_AS(Thread::isMain(), "Thread::isMain()", "Commands run on the main thread");
    const std::string name = Command::getCommandName(command);
    Command* const found = registry.find(name);
    try {
        if (std::optional<Outcome> refusal = findRefusal(found, command, road))
            return *std::move(refusal);
    } catch (const std::exception&) { // too large for the memory that is left
        return makeCaughtFailure(name);
    }
    return run(*found, command, std::string(), tell);
}

void Controller::Impl::serve(QueuedCommand request) {
    const std::string name = Command::getCommandName(request.command);
    Command* const command = registry.find(name);
    bool mayRunBeside = false;
    try {
        if (const std::optional<Outcome> refusal = findRefusal(command, request.command, Road::CLIENT)) {
            answer(request, *refusal);
            return;
        }
        mayRunBeside = command->shouldThread(request.command);
    } catch (const abi::__forced_unwind&) {
        throw;
    } catch (...) {
        answer(request, makeCaughtFailure(name));
        return;
    }
    if (!mayRunBeside) {
        tellBegin(request);
        answer(request, run(*command, request.command, request.client, true));
    } else if (!mayThread || !startThread(*command, request)) {
        tellBegin(request);
        answer(request, runLocally(*command, request));
    }
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
        answer(thread.getRequest(), thread.getOutcome());
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
    Outcome outcome = _impl->execute(command, Impl::Road::INSIDE, _impl->depth == 0);
    response = std::move(outcome.response);
    return !outcome.hasFailed();
}

Controller::Outcome Controller::executeScattered(const Properties& command) {
    return _impl->execute(command, Impl::Road::SCATTERED, _impl->depth == 0);
}

std::string Controller::execute(const Properties& command) {
    return _impl->execute(command, Impl::Road::INSIDE, true).response.toString();
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

std::size_t Controller::getNumberQueuedCommands() const {
    const std::lock_guard guard(_impl->mutex);
    return _impl->queue.size();
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

Controller::Outcome& Controller::getToldOutcome() {
    ORVEX_ASSERT_AS(_impl->told != nullptr, "_impl->told != nullptr",
                    "No observer is being told of an outcome");
    return *_impl->told;
}

Subject& Controller::getSignalRaisedObservable() {
    return _impl->signalObservable;
}

Mutex& Controller::getLock() {
    return _impl->lock;
}
