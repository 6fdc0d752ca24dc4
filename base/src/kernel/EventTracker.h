#pragma once

#include "kernel/KernelExport.h"

#include <atomic>
#include <memory>
#include <string>

class EventLoggerManager;

/// Gives the events of the code to the event logger manager of the moment, and to a watcher.
class ORVEX_KERNEL_EXPORT EventTracker {
public:
    /// An event that lasts as long as the scope. Costs one load and one test while neither the manager is on
    /// nor a watcher there, and only the main thread's events count.
    class Track {
    public:
        /// The names are borrowed for the scope.
        Track(const char* className, const char* method) : _class(className), _method(method) {
            if (_listeners.load(std::memory_order_relaxed) != 0) [[unlikely]]
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

    /// Is told each event of the main thread, there.
    class Watcher {
    public:
        virtual void onStart(const char* className, const char* method) noexcept = 0;
        /// Also of an event that started before the watcher was set, when the manager was on.
        virtual void onStop(const char* className, const char* method) noexcept = 0;

    protected:
        ~Watcher() = default;
    };

    static EventTracker& getSingleton();
    /// Destroys the tracker with its manager.
    static void reset();

    /// A plain EventLoggerManager until another one is set.
    EventLoggerManager& getEventLoggerManager() { return *_manager; }
    /// Null: none. One that was set is called a little longer, so it has to live to the end of the process.
    /// Any thread.
    static void setWatcher(Watcher* watcher);
    /// Takes ownership of `manager` and destroys the one before it. Main thread.
    void setEventLoggerManager(EventLoggerManager* manager);

private:
    friend class EventLoggerManager;

    EventTracker();
    ~EventTracker();
    /// Called by a manager that was switched.
    static void noteSwitch(const EventLoggerManager& manager);

    static EventTracker* _singleton;
    enum Listener : unsigned { MANAGER = 1u << 0, WATCHER = 1u << 1 };
    static void listen(Listener listener, bool on);

    static std::atomic<unsigned> _listeners; ///< the manager while it is on, the watcher
    static std::atomic<Watcher*> _watcher;   ///< the last one that was set
    std::unique_ptr<EventLoggerManager> _manager;
};
