#include "kernel/EventTracker.h"

#include "kernel/EventLoggerManager.h"
#include "kernel/MessagingGate.h"
#include "kernel/Raise.h"
#include "platform/Log.h"

#include <exception>
#include <utility>

EventTracker* EventTracker::_singleton = nullptr;
std::atomic<unsigned> EventTracker::_listeners{0};
std::atomic<EventTracker::Watcher*> EventTracker::_watcher{nullptr};

void EventTracker::Track::start() {
    if (MessagingGate::has(MessagingGate::NOT_MAIN_THREAD))
        return;
    const unsigned listeners = _listeners.load(std::memory_order_acquire);
    if ((listeners & MANAGER) != 0)
        _singleton->_manager->startEventLog(_class, _method);
    if ((listeners & WATCHER) != 0)
        _watcher.load(std::memory_order_relaxed)->onStart(_class, _method);
    _started = true;
}

void EventTracker::Track::stop() noexcept {
    if ((_listeners.load(std::memory_order_acquire) & WATCHER) != 0)
        _watcher.load(std::memory_order_relaxed)->onStop(_class, _method);
    // The manager may have been switched off, replaced or destroyed since the start.
    if (_singleton == nullptr)
        return;
    try {
        _singleton->_manager->stopEventLog(_class, _method);
    } catch (const std::exception& error) {
        OS::Log::instance("Default").warning("EventTracker::Track", "@0@: @1@", _class, error.what());
    }
}

EventTracker& EventTracker::getSingleton() {
    if (_singleton == nullptr)
        _singleton = new EventTracker;
    return *_singleton;
}

void EventTracker::reset() {
    listen(MANAGER, false);
    delete std::exchange(_singleton, nullptr);
}

EventTracker::EventTracker() : _manager(std::make_unique<EventLoggerManager>()) {}

EventTracker::~EventTracker() = default;

void EventTracker::setEventLoggerManager(EventLoggerManager* manager) {
    ORVEX_ASSERT_AS(manager != nullptr, "manager", "There is no event logger manager to install");
    if (manager == _manager.get())
        return;
    listen(MANAGER, false);
    _manager.reset(manager);
    noteSwitch(*manager);
}

void EventTracker::noteSwitch(const EventLoggerManager& manager) {
    if (_singleton == nullptr || _singleton->_manager.get() != &manager)
        return;
    listen(MANAGER, manager.isOn());
}

void EventTracker::setWatcher(Watcher* watcher) {
    if (watcher)
        _watcher.store(watcher, std::memory_order_relaxed);
    listen(WATCHER, watcher != nullptr);
}

void EventTracker::listen(Listener listener, bool on) {
    if (on)
        _listeners.fetch_or(listener, std::memory_order_release);
    else
        _listeners.fetch_and(~unsigned(listener), std::memory_order_release);
}
