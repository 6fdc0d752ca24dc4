#include "kernel/Server.h"

#include "kernel/Controller.h"
#include "kernel/Observer.h"
#include "kernel/Properties.h"
#include "kernel/Raise.h"
#include "kernel/SingletonCleaner.h"
#include "kernel/Task.h"
#include "kernel/server/ServerService.h"
#include "kernel/server/SessionLocator.h"

#include "platform/FileSystem.h"
#include "platform/Io.h"
#include "platform/Process.h"
#include "platform/Runnable.h"
#include "platform/StringHelper.h"
#include "platform/System.h"
#include "platform/Thread.h"

#include <iostream>
#include <mutex>

namespace {

Server* singleton = nullptr;

/// The session's name for people: the given one, else that of the program with the process's number.
std::string nameOf(const std::wstring& name) {
    if (!name.empty())
        return StringHelper::toString(name);
    const std::wstring path = Platform::system().getExecutablePath();
    return StringHelper::toString(path.substr(path.rfind(L'/') + 1)) + "-" +
           std::to_string(Platform::process().getPid());
}

class ServiceRunner : public Runnable {
public:
    explicit ServiceRunner(ServerService& service) : _service(service) {}
    void run() override { _service.run(); }
    void stop() override { _service.stop(); }

private:
    ServerService& _service;
};

class ProgressObserver : public Observer {
public:
    explicit ProgressObserver(ServerService& service) : _service(service) {
        Task::getObservable().attach(*this);
    }
    ~ProgressObserver() override { Task::getObservable().detach(*this); }
    void update(Properties& properties) override { _service.notify("server.progress", properties); }

private:
    ServerService& _service;
};

} // namespace

struct Server::Impl {
    void begin(const std::wstring& name, unsigned port, bool threaded);
    void end();
    std::shared_ptr<ServerService> getService() const {
        const std::lock_guard lock(mutex);
        return service;
    }

    ServerService::Settings settings;
    std::function<void()> serviceEndedCallback;
    bool stopRequested = false;
    mutable std::mutex mutex; ///< guards `service` and `stopRequested`
    std::shared_ptr<ServerService> service;
    std::unique_ptr<ProgressObserver> progress;
    std::unique_ptr<ServiceRunner> runner;
    std::unique_ptr<Thread> thread;
};

void Server::Impl::begin(const std::wstring& name, unsigned port, bool threaded) {
    ORVEX_ASSERT(!service, "A server starts once");
    settings.name = nameOf(name);
    settings.port = port;
    settings.threaded = threaded;
    settings.listed = settings.listed && threaded;
    auto created = std::make_shared<ServerService>(settings);
    created->open();
    bool stopAtOnce = false;
    {
        const std::lock_guard lock(mutex);
        service = created;
        stopAtOnce = stopRequested;
    }
    progress = std::make_unique<ProgressObserver>(*created);
    if (created->getPort() != 0)
        std::cout << "Server::start -host " << Platform::io().getHostName() << ":" << created->getPort()
                  << std::endl;
    if (!settings.listed && created->getPort() != 0)
        std::cout << "Session record: "
                  << StringHelper::toString(SessionLocator::getSingleton().getRecordPath()) << std::endl;
    if (stopAtOnce)
        created->stop();
}

void Server::Impl::end() {
    progress.reset();
    service->releaseConsole();
    thread.reset();
    runner.reset();
    service->finishRollCalls();
}

Server::Server() : _impl(std::make_unique<Impl>()) {
    SingletonCleaner::registerReset(&Server::reset);
}

Server::~Server() {
    if (_impl->thread)
        join();
}

Server& Server::getSingleton() {
    if (!singleton)
        singleton = new Server;
    return *singleton;
}

void Server::reset() {
    delete singleton;
    singleton = nullptr;
}

void Server::setConnectionMode(ConnectionMode mode) {
    _impl->settings.mode = mode;
}

void Server::enableOutputToClients(bool on) {
    _impl->settings.outputToClients = on;
}

void Server::enableSessionLocator(bool on) {
    _impl->settings.listed = on;
}

void Server::setAbortCallback(std::function<void()> callback) {
    _impl->settings.abortCallback = std::move(callback);
}

void Server::setBillCallback(std::function<Properties()> callback) {
    _impl->settings.billSoFar = std::move(callback);
}

void Server::setSlowMethod(const std::string& method,
                           std::function<Properties(const Properties& request)> callback) {
    if (callback)
        _impl->settings.slowMethods[method] = std::move(callback);
    else
        _impl->settings.slowMethods.erase(method);
}

void Server::setRollCall(std::function<Properties(const Properties& request)> callback) {
    _impl->settings.rollCall = std::move(callback);
}

void Server::setClientAddress(const std::string& address) {
    _impl->settings.clientAddress = address;
}

void Server::setPortRange(int range) {
    _impl->settings.portRange = range;
}

void Server::setServiceEndedCallback(std::function<void()> callback) {
    _impl->serviceEndedCallback = std::move(callback);
}

void Server::setLimits(const ServerLimits& limits) {
    _impl->settings.limits = limits;
}

void Server::start(const std::wstring& name, unsigned port) {
    _impl->begin(name, port, false);
    Controller& controller = Controller::getSingleton();
    controller.setThreadedCommands(false);
    Task::setServing([this] { _impl->service->serveMeanwhile(); });
    while (_impl->service->runSome()) {
        controller.processQueuedCommands();
        if (_impl->service->stopRequested())
            controller.processCommands(); // refuses what is queued
    }
    Task::setServing({});
    if (_impl->serviceEndedCallback)
        _impl->serviceEndedCallback();
    _impl->end();
}

void Server::startInThread(const std::wstring& name, unsigned port) {
    _impl->begin(name, port, true);
    _impl->runner = std::make_unique<ServiceRunner>(*_impl->service);
    _impl->thread = std::make_unique<Thread>(*_impl->runner, "orvex-server");
    _impl->thread->start();
}

void Server::stop() {
    {
        const std::lock_guard lock(_impl->mutex);
        _impl->stopRequested = true;
    }
    if (const auto service = _impl->getService())
        service->stop();
}

void Server::join() {
    stop();
    if (!_impl->thread)
        return;
    _impl->service->expectNoAnswers();
    _impl->thread->join();
    _impl->end();
}

bool Server::isRunning() const {
    const auto service = _impl->getService();
    return service && service->isRunning();
}

unsigned Server::getPort() const {
    const auto service = _impl->getService();
    return service ? service->getPort() : 0;
}

std::string Server::getHost() const {
    return Platform::io().getHostName();
}

std::string Server::getSessionName() const {
    const auto service = _impl->getService();
    return service ? service->getName() : std::string();
}

void Server::flushNotifies() {
    if (const auto service = _impl->getService())
        service->flushNotifies();
}

void Server::notifyAbort(Properties& reason) {
    if (const auto service = _impl->getService())
        service->notifyAbort(reason);
}

void Server::notify(const std::string& method, const Properties& params) {
    if (const auto service = _impl->getService())
        service->notify(method, params);
}

void Server::tellClients(const std::string& text) {
    if (const auto service = _impl->getService())
        service->tellClients(text);
}
