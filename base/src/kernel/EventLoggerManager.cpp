#include "kernel/EventLoggerManager.h"

#include "kernel/EventTracker.h"
#include "kernel/MessagingGate.h"

#include <utility>

const char* const EventLoggerManager::FIELD_TAG = " / ";

namespace {

bool isMainThread() {
    return !MessagingGate::has(MessagingGate::NOT_MAIN_THREAD);
}

/// The place of a pair of names among `places`, by their addresses.
std::size_t placeOf(const char* first, const char* second, std::size_t places) {
    constexpr std::uintptr_t SPREAD = 0x9E3779B97F4A7C15;
    const auto a = reinterpret_cast<std::uintptr_t>(first);
    const auto b = reinterpret_cast<std::uintptr_t>(second);
    return ((a * SPREAD + b) * SPREAD >> 32) % places;
}

std::string makeKey(const std::string& first, const std::string& second) {
    return first + EventLoggerManager::FIELD_TAG + second;
}

} // namespace

EventLoggerManager::EventLogger::EventLogger(std::string first, std::string second)
    : _first(std::move(first)), _second(std::move(second)) {}

EventLoggerManager::EventLogger::~EventLogger() = default;

void EventLoggerManager::EventLogger::start() {
    onStart();
    ++_nOpen;
    ++_eventCounter;
}

void EventLoggerManager::EventLogger::stop() {
    if (_nOpen == 0)
        return;
    onStop();
    --_nOpen;
}

std::string EventLoggerManager::EventLogger::getKey() const {
    return makeKey(_first, _second);
}

void EventLoggerManager::EventLogger::onStart() {}

void EventLoggerManager::EventLogger::onStop() {}

EventLoggerManager::EventLoggerManager() = default;

EventLoggerManager::~EventLoggerManager() = default;

EventLoggerManager& EventLoggerManager::operator=(const EventLoggerManager& other) {
    if (this == &other)
        return *this;
    if (other._isOn)
        switchOn();
    else
        switchOff();
    for (const auto& [key, theirs] : other._loggers) {
        if (!theirs->isOpen())
            continue;
        EventLogger* mine = createEventLogger(theirs->getFirstName(), theirs->getSecondName());
        while (mine->getNumberOpen() < theirs->getNumberOpen())
            mine->start();
    }
    return *this;
}

void EventLoggerManager::startEventLog(const std::string& first, const std::string& second) {
    if (_isOn && isMainThread())
        createEventLogger(first, second)->start();
}

void EventLoggerManager::startEventLog(const std::string& name) {
    startEventLog(name, std::string());
}

void EventLoggerManager::stopEventLog(const std::string& first, const std::string& second) {
    if (!isMainThread())
        return;
    if (EventLogger* logger = getEventLogger(first, second))
        logger->stop();
}

void EventLoggerManager::stopEventLog(const std::string& name) {
    stopEventLog(name, std::string());
}

void EventLoggerManager::startEventLog(const char* first, const char* second) {
    if (!_isOn || !isMainThread())
        return;
    Remembered& names = recall(first, second);
    if (names.logger == nullptr)
        names = {first, second, createEventLogger(first, second)};
    names.logger->start();
}

void EventLoggerManager::stopEventLog(const char* first, const char* second) {
    if (!isMainThread())
        return;
    EventLogger* logger = recall(first, second).logger;
    if (logger == nullptr)
        logger = getEventLogger(first, second);
    if (logger != nullptr)
        logger->stop();
}

void EventLoggerManager::report() {}

void EventLoggerManager::switchOn() {
    _isOn = true;
    EventTracker::noteSwitch(*this);
}

void EventLoggerManager::switchOff() {
    _isOn = false;
    EventTracker::noteSwitch(*this);
}

EventLoggerManager::EventLogger* EventLoggerManager::createEventLogger(const std::string& first,
                                                                       const std::string& second) {
    if (EventLogger* known = getEventLogger(first, second))
        return known;
    return addEventLogger(std::make_unique<EventLogger>(first, second));
}

EventLoggerManager::EventLogger* EventLoggerManager::getEventLogger(const std::string& first,
                                                                    const std::string& second) const {
    const auto entry = _loggers.find(makeKey(first, second));
    return entry == _loggers.end() ? nullptr : entry->second.get();
}

EventLoggerManager::EventLogger* EventLoggerManager::addEventLogger(std::unique_ptr<EventLogger> logger) {
    _remembered.fill({}); // it may hold the one that is replaced
    std::unique_ptr<EventLogger>& entry = _loggers[logger->getKey()];
    entry = std::move(logger);
    return entry.get();
}

EventLoggerManager::Remembered& EventLoggerManager::recall(const char* first, const char* second) {
    Remembered& names = _remembered[placeOf(first, second, NUMBER_REMEMBERED)];
    // The text at an address may have changed since.
    if (names.logger != nullptr &&
        (names.first != first || names.second != second || names.logger->getFirstName() != first ||
         names.logger->getSecondName() != second))
        names = {};
    return names;
}
