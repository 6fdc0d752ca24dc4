#pragma once

#include <string>

enum CpuBindingPolicy : int;

/// Holds what the command line says about this process. The passes over the line fill it.
///
/// The one value of the process is MachineGround::getOptions(). The options that only the server of a serial
/// or master process needs are in ServerHostOptions.
struct MachineOptions {
    std::string commandLine = {}; ///< all words of this process, with a blank between two

    // ---- Server and role.
    bool threaded = true; ///< the server has a thread of its own; on a worker: that of the master
    bool proxyServer = false;
    bool proxySessionDaemon = false;
    bool designStudy = false;
    bool designManager = false;
    std::wstring passToDesign = {};
    std::wstring jobManagerUrl = {};
    int taskId = -1;             ///< -1: there is no job manager
    bool attachDebugger = false; ///< prints the line by which a debugger attaches to all ranks
    bool deleteOnExit = false;
    bool usageDisabled = false;

    // ---- A rank that fails while others wait for it.
    int stuckTime = 20;         ///< [s] that they may stand still; the same on all ranks
    bool waitWhenStuck = false; ///< the job stays for the user to look at

    // ---- Placement.
    bool internalBinding = true;         ///< false: the binding that the process was started with stays
    CpuBindingPolicy bindingPolicy = {}; ///< BANDWIDTH_BINDING at first
    bool bindingContentionTest = true;   ///< looks for other servers on the same cores
    unsigned bindingVerbosity = 0;       ///< 0: silent, 1: results, 2: also the findings on each host
    bool threadBinding = true;
    bool threadBindingVerbose = false;

    // ---- Files and console.
    std::string processFileName = {};     ///< empty: none is written
    std::wstring temporaryDirectory = {}; ///< set by the pass for all roles in any case
    bool parallelIo = false;              ///< stays false in a serial process
    int ioVerbosity = 0;
    bool printPids = false;
};
