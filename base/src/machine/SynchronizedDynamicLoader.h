#pragma once

#include "machine/MachineExport.h"

#include <string>

/// Loads a module on all ranks of the job, or fails on all of them.
class ORVEX_MACHINE_EXPORT SynchronizedDynamicLoader {
public:
    /// Made on first use. Main thread.
    static SynchronizedDynamicLoader& getSingleton();
    /// Deletes it; loaded modules stay loaded. The next use makes a new one. Main thread.
    static void reset();
    SynchronizedDynamicLoader(const SynchronizedDynamicLoader&) = delete;
    SynchronizedDynamicLoader& operator=(const SynchronizedDynamicLoader&) = delete;

    /// Whether this process has loaded `module`. Local.
    bool isLoaded(const std::string& module);

    /// Loads `module`, whose name becomes part of the state of a simulation.
    /// Collective over the global communicator. Main thread.
    /// @throw SystemError on all ranks when one of them can't load it; where it succeeded the module stays
    /// loaded
    void load(const std::string& module);
    /// The same for a module that leaves no trace in a simulation's state.
    /// Collective over the global communicator. Main thread.
    /// @throw SystemError as load() does
    void nonStateLoad(const std::string& module);

    /// Called on each rank, on the main thread, when a module has come with all that it needs; null:
    /// nothing is called. Inside this library.
    using LoadedCallback = void (*)();
    static void setLoadedCallback(LoadedCallback callback) { _loadedCallback = callback; }

private:
    /// @throw InternalError when there is one already
    SynchronizedDynamicLoader();
    ~SynchronizedDynamicLoader() = default;

    static SynchronizedDynamicLoader* _singleton;
    static LoadedCallback _loadedCallback;
};
