#pragma once

#include "machine/MachineExport.h"
#include "machine/ground/CommandLine.h"

#include <stdexcept>
#include <string>
#include <vector>

/// The options of the server of a serial or master process, read by the last pass over the command line.
/// Workers never read these options.
struct ORVEX_MACHINE_EXPORT ServerHostOptions {
    /// Tells the user why the process must not go on.
    class ORVEX_MACHINE_EXPORT Refusal : public std::runtime_error {
    public:
        enum Kind {
            INVALID_ARGUMENT, ///< ends with the exit status of an invalid server argument
            INVALID_NUMBER    ///< ends at once with the exit value 1
        };
        Refusal(Kind kind, const std::string& message) : std::runtime_error(message), _kind(kind) {}
        Kind getKind() const { return _kind; }

    private:
        Kind _kind;
    };

    static constexpr unsigned DEFAULT_PORT = 47827;
    static constexpr int NO_PORT_RANGE = -1;

    std::wstring sessionName;
    std::string clientAddress;
    std::string proxyHost;
    std::string proxyCommand;
    std::string processFileName;
    std::wstring passToDesign;
    bool connect = true;
    bool collaborate = false;
    bool outputToClients = true;
    bool load = false;
    bool sessionLocator = true;
    bool createNew = false;
    bool proxyDebug = false;
    bool attachDebugger = false;
    unsigned port = DEFAULT_PORT;
    int portRange = NO_PORT_RANGE;

    /// @param parallel        whether this is the master of a job
    /// @param designManager   whether the process manages a design study
    /// @throw Refusal when the line holds what no pass knows, or what doesn't go together
    static ServerHostOptions parse(int argc, const char* const* argv, CommandLine::Consumed& consumed,
                                   bool parallel, bool designManager);
    /// The options of this pass, in the order in which people read them.
    static std::vector<CommandLineOption> list();
};
