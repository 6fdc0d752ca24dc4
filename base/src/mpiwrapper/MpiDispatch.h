#pragma once

#include "mpiwrapper/MpiDriver.h"

#include <atomic>

/// The functions to which the exported ones jump. Always complete: a function that can't be served now
/// refuses. Rewritten by MpiDispatch, and read and written by MpiFunctionTable alone.
extern __attribute__((visibility("hidden"))) MpiDriverFunctions activeMpiFunctions;

/// Owns the way of a driver from its module to the active functions and back.
/// One object, used by the thread that starts and ends MPI; errorString() is for any thread.
class MpiDispatch {
public:
    static MpiDispatch& getSingleton();

    int initialize(void* library);
    int initializeFiles(void* library);
    const char* getInitializeError() const { return _initializeError; }
    int init(int* argc, char*** argv);
    int finalize();
    int errorString(int code, char* text, int* length) const;
    int setTracing(bool on);

    int setName(const char* name, int length) { return store(_name, name, length); }
    int setVersion(const char* version, int length) { return store(_version, version, length); }
    int getName(char* name, int* length, int capacity) const { return fetch(_name, name, length, capacity); }
    int getVersion(char* version, int* length, int capacity) const {
        return fetch(_version, version, length, capacity);
    }

private:
    /// How far the wrapper has come: decides which functions answer.
    enum class Phase { NO_DRIVER, LOADED, RUNNING, CLOSED };
    using Text = char[OXM_MPI_MAX_LIBRARY_VERSION_STRING];

    /// 0, or the code of the refusal, whose reason stands in _initializeError.
    int examine(void* library, const MpiDriver*& driver);
    int refuse(int code, const char* format, ...) __attribute__((format(printf, 3, 4)));
    int getRefusal(bool needsRunning, bool isFile) const;
    void updateActiveFunctions();
    static int store(Text& text, const char* value, int length);
    static int fetch(const Text& text, char* buffer, int* length, int capacity);

    // Plain arrays: a thread that calls while the process ends still finds them.
    std::atomic<const MpiDriver*> _driver = nullptr;
    std::atomic<Phase> _phase = Phase::NO_DRIVER;
    bool _hasFiles = false;
    bool _isTracing = false;
    Text _name = "";
    Text _version = "";
    char _initializeError[6144] = "";
};
