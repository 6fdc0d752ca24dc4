#include "kernel/EventTracker.h"

#include "kernel/EventLoggerManager.h"
#include "kernel/MessagingGate.h"
#include "kernel/Raise.h"
#include "platform/Log.h"

#include <exception>
#include <utility>

EventTracker* EventTracker::_singleton = nullptr;
std::atomic<EventLoggerManager*> EventTracker::_active{nullptr};

void EventTracker::Track::start() {
    if (MessagingGate::has(MessagingGate::NOT_MAIN_THREAD))
        return;
    _active.load(std::memory_order_relaxed)->startEventLog(_class, _method);
    _started = true;
}

void EventTracker::Track::stop() noexcept {
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
    _active.store(nullptr, std::memory_order_relaxed);
    delete std::exchange(_singleton, nullptr);
}

EventTracker::EventTracker() : _manager(std::make_unique<EventLoggerManager>()) {}

EventTracker::~EventTracker() = default;

void EventTracker::setEventLoggerManager(EventLoggerManager* manager) {
    ORVEX_ASSERT_AS(manager != nullptr, "manager", "There is no event logger manager to install");
    if (manager == _manager.get())
        return;
    _active.store(nullptr, std::memory_order_relaxed);
    _manager.reset(manager);
    noteSwitch(*manager);
}

void EventTracker::noteSwitch(const EventLoggerManager& manager) {
    if (_singleton == nullptr || _singleton->_manager.get() != &manager)
        return;
    _active.store(manager.isOn() ? _singleton->_manager.get() : nullptr, std::memory_order_relaxed);
}
