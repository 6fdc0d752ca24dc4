#pragma once

#include "kernel/KernelExport.h"

#include <atomic>
#include <memory>
#include <string>

class EventLoggerManager;

/// Gives the events of the code to the event logger manager of the moment.
class ORVEX_KERNEL_EXPORT EventTracker {
public:
    /// An event that lasts as long as the scope. Costs one load and one test while the manager is off, and
    /// only the main thread's events count.
    class Track {
    public:
        /// The names are borrowed for the scope.
        Track(const char* className, const char* method) : _class(className), _method(method) {
            if (_active.load(std::memory_order_relaxed) != nullptr) [[unlikely]]
                start();
        }
        Track(const char* className, const std::string& method) : Track(className, method.c_str()) {}
        Track(const char* className, std::string&& method) = delete;
        Track(const Track&) = delete;
        Track& operator=(const Track&) = delete;
        ~Track() {
            if (_started) [[unlikely]]
                stop();
        }

    private:
        ORVEX_KERNEL_EXPORT void start();
        ORVEX_KERNEL_EXPORT void stop() noexcept;

        const char* _class;
        const char* _method;
        bool _started = false;
    };

    static EventTracker& getSingleton();
    /// Destroys the tracker with its manager.
    static void reset();

    /// A plain EventLoggerManager until another one is set.
    EventLoggerManager& getEventLoggerManager() { return *_manager; }
    /// Takes ownership of `manager` and destroys the one before it. Main thread.
    void setEventLoggerManager(EventLoggerManager* manager);

private:
    friend class EventLoggerManager;

    EventTracker();
    ~EventTracker();
    /// Called by a manager that was switched.
    static void noteSwitch(const EventLoggerManager& manager);

    static EventTracker* _singleton;
    /// The installed manager while it is on, else null.
    static std::atomic<EventLoggerManager*> _active;
    std::unique_ptr<EventLoggerManager> _manager;
};
