#pragma once

#include <chrono>
#include <optional>
#include <string>
#include <vector>

/// How orvexctl ends.
struct ExitCode {
    enum Value : int {
        SUCCESS = 0,
        COMMAND_FAILED = 1, ///< the server ran the command, or a request to itself, and it failed
        USAGE_ERROR = 2,
        CANNOT_CONNECT = 3, ///< no session is there, or nobody answers
        REFUSED = 4,        ///< wrong key, other version, or another client is connected
        CONNECTION_LOST = 5,
        TIMED_OUT = 6,
        OUTPUT_FAILED = 7, ///< what was to be printed can't be written
        GIVEN_UP = 130     ///< the user left a command alone, as shells tell an end by Ctrl-C
    };
};

/// The wishes of the user.
struct CtlOptions {
    std::string session; ///< name or pid, empty: the newest
    std::string host;
    unsigned port = 0;
    std::string keyFile;
    std::string script; ///< path, "-" is standard input
    bool json = false;
    bool bill = false;                                ///< what each command cost, after its answer
    bool quiet = false;                               ///< no console output of the server
    bool keepGoing = false;                           ///< a script goes on after an error
    std::optional<std::chrono::milliseconds> timeout; ///< for an answer; none: as long as it takes
    std::optional<double> deadline; ///< of each command's running time; none: as long as it takes [s]
    std::vector<std::string> words; ///< the command and its arguments
    std::string usage;              ///< how orvexctl is called, for people

    /// Reads the command line; prints what it asks to print or what is wrong with it.
    /// @param exitCode  set when there is nothing more to do
    static CtlOptions parse(int argc, char** argv, std::optional<int>& exitCode);
};
