#pragma once

#include "platform/PlatformExport.h"
#include "platform/ProcessHandle.h"

#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace Platform {

/// Processes of this host: this one, its children, the others. Local, any thread.
///
/// A command is a vector of words, the first the program; without a separator in it, the program is looked
/// for on the search path. No shell stands between, so no word needs quoting. A child starts with default
/// signal dispositions, an empty signal mask, the null device as its standard input unless it gets a pipe,
/// and none of this process's other descriptors.
class ORVEX_PLATFORM_EXPORT Process {
public:
    /// The special wishes for a child.
    struct StartOptions {
        bool pipeInput = false; ///< ProcessHandle::getInput() feeds its standard input
        bool pipeOutput =
            true; ///< ProcessHandle::getOutput() reads it, else it prints where this process does
        bool joinErrorToOutput =
            true;                    ///< standard error goes with the output, else where this process's goes
        bool ownGroup = false;       ///< a process group of its own: no Ctrl-C of ours reaches it
        std::wstring directory = {}; ///< its current directory, ours when empty
        std::vector<std::pair<std::string, std::string>> environment = {}; ///< set on top of ours
    };
    /// How a child ended that was run to its end.
    struct RunResult {
        std::optional<int> exitStatus; ///< nothing when it was ended because its time was up
        std::string output;
        bool outputCut = false; ///< it printed more than was wanted; the rest was dropped
    };

    int getPid() const;
    /// The processes of this host whose executable is called `executableName` (the file name, without its
    /// directory), ascending, this process included when it is one. A process of another user whose
    /// executable can't be read counts by the name that the system shows, of which it keeps 15 characters.
    std::vector<int> getPids(const std::string& executableName) const;
    /// The processors, by the system's numbers, on which the calling thread may run; none when the system
    /// doesn't tell.
    std::vector<unsigned> getProcessors() const;
    /// Whether a process of this number runs (a zombie doesn't).
    bool isAlive(int pid) const;
    /// A number that differs between two processes which bear the same pid one after the other; 0 when there
    /// is no such process.
    unsigned long long getStartStamp(int pid) const;
    /// The number of the namespace that the pids here belong to, unlike that of any other on this boot of the
    /// host; 0 when the system's process pages aren't those of this namespace or aren't there at all. Then
    /// isAlive() and getStartStamp() can't be relied on.
    unsigned long long getPidNamespace() const;
    /// Asks a process to end (SIGTERM). @return false when it isn't there or isn't ours to stop
    bool terminate(int pid) const;
    /// Ends a process at once (SIGKILL). @return false when it isn't there or isn't ours to stop
    bool kill(int pid) const;

    /// Starts a child.
    /// @throw std::system_error when it can't be started, with the program's name in the message
    std::unique_ptr<OS::Process::ProcessHandle> start(const std::vector<std::wstring>& command,
                                                      const StartOptions& options);

    /// Starts a child and waits until a line of its output holds `expected`, until it closes its output, or
    /// for `timeLimit` seconds. What it prints afterwards is read and dropped, with `verbose` printed
    /// on our standard output.
    /// @param captured  gets the output up to the line that holds `expected`, or whatever came
    /// @return null when the child could not be started: then `captured` says why
    std::unique_ptr<OS::Process::ProcessHandle> startAndExpect(const std::vector<std::wstring>& command,
                                                               const std::string& expected,
                                                               std::string& captured, bool verbose,
                                                               double timeLimit = 60.0);

    /// Runs a child to its end; it prints where this process does.
    /// @param timeLimit  [s], negative: none; a child that is still there then is ended
    /// @return its exit status, 128 + the signal's number after a signal, 127 when it couldn't be started,
    ///         124 when its time was up
    int run(const std::vector<std::wstring>& command, double timeLimit = -1.0);

    /// Runs a child to its end and keeps what it prints, at most `maxOutput` bytes of it.
    /// @throw std::system_error when it can't be started
    RunResult runCaptured(const std::vector<std::wstring>& command, double timeLimit,
                          std::size_t maxOutput = std::size_t{1} << 24);
};

/// The one process service of the process.
ORVEX_PLATFORM_EXPORT Process& process();

} // namespace Platform
