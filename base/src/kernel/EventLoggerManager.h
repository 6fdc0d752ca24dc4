#pragma once

#include "kernel/KernelExport.h"

#include <array>
#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <string>

/// Keeps one logger for each event, an event being a pair of names, for example class and operation.
///
/// This base counts how often events were started and how deep they are open; heirs measure what happens
/// between start and stop. It is off at first. Main thread; calls on other threads have no effect.
class ORVEX_KERNEL_EXPORT EventLoggerManager {
public:
    /// Stands between the two names in the key of an event; no event name holds it.
    static const char* const FIELD_TAG;

    /// The record of one event.
    class ORVEX_KERNEL_EXPORT EventLogger {
    public:
        EventLogger(std::string first, std::string second);
        EventLogger(const EventLogger&) = delete;
        EventLogger& operator=(const EventLogger&) = delete;
        /// An heir whose stop hook needs its own fields calls stop() in its destructor while the event is
        /// open.
        virtual ~EventLogger();

        /// Opens the event once more: calls the start hook, then counts.
        void start();
        /// Closes it once: calls the stop hook, then lowers the open count. Does nothing when it isn't open.
        void stop();

        bool isOpen() const { return _nOpen != 0; }
        /// How often it was started and not stopped yet.
        unsigned getNumberOpen() const { return _nOpen; }
        /// How often it was started.
        std::uint32_t getEventCounter() const { return _eventCounter; }
        const std::string& getFirstName() const { return _first; }
        const std::string& getSecondName() const { return _second; }
        /// First name, FIELD_TAG, second name.
        std::string getKey() const;

    protected:
        /// Called at each start, nested ones too, before it is counted.
        virtual void onStart();
        /// Called at each stop, with the open count from before: 1 at the outermost.
        virtual void onStop();

    private:
        std::string _first;
        std::string _second;
        unsigned _nOpen = 0;
        std::uint32_t _eventCounter = 0;
    };
    using EventLoggers = std::map<std::string, std::unique_ptr<EventLogger>>;

    EventLoggerManager();
    EventLoggerManager(const EventLoggerManager&) = delete;
    /// Takes over what `other` is in the middle of: whether it is on, and its open events, which count from
    /// now on. What is closed in `other` stays there.
    EventLoggerManager& operator=(const EventLoggerManager& other);

    virtual ~EventLoggerManager();
    /// Opens the event. Does nothing while the manager is off.
    virtual void startEventLog(const std::string& first, const std::string& second);
    /// The same for an event with one name, the second being empty.
    virtual void startEventLog(const std::string& name);
    /// Closes the event once, also when the manager was switched off meanwhile. An event that isn't open
    /// stays so.
    virtual void stopEventLog(const std::string& first, const std::string& second);
    virtual void stopEventLog(const std::string& name);
    /// Writes what was measured. Collective over all processes; nothing to write here.
    virtual void report();
    virtual void switchOn();
    virtual void switchOff();
    /// The logger of the event, made and entered if there was none.
    virtual EventLogger* createEventLogger(const std::string& first, const std::string& second);
    /// The same as with strings. An event that is known costs neither memory nor a search: the manager
    /// remembers the addresses of names.
    virtual void startEventLog(const char* first, const char* second);
    virtual void stopEventLog(const char* first, const char* second);

    bool isOn() const { return _isOn; }
    /// By key, in key order.
    const EventLoggers& getEventLoggers() const { return _loggers; }

protected:
    /// Null when the event is unknown.
    EventLogger* getEventLogger(const std::string& first, const std::string& second) const;
    /// Enters a logger under its key; one of the same key is replaced.
    EventLogger* addEventLogger(std::unique_ptr<EventLogger> logger);

private:
    /// The logger of two names at these addresses.
    struct Remembered {
        const char* first = nullptr;
        const char* second = nullptr;
        EventLogger* logger = nullptr;
    };
    static constexpr std::size_t NUMBER_REMEMBERED = 256;

    /// Its logger is null when these names aren't remembered.
    Remembered& recall(const char* first, const char* second);

    EventLoggers _loggers;
    std::array<Remembered, NUMBER_REMEMBERED> _remembered{};
    bool _isOn = false;
};
