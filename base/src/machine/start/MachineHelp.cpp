// The answers to --help and --version.

#include "machine/Machine.h"

#include "machine/start/ServerHostOptions.h"

#include "kernel/OrvexVersion.h"

#include <algorithm>
#include <cstdlib>
#include <iomanip>
#include <iostream>
#include <sstream>
#include <string_view>

namespace {

constexpr const char* HELP = "--help";
constexpr const char* VERSION = "--version";

/// Launchers tell the rank by these variables; the first one that is set counts.
constexpr const char* RANK_VARIABLES[] = {"OMPI_COMM_WORLD_RANK", "PMIX_RANK",   "PMI_RANK",
                                          "PALS_RANKID",          "ALPS_APP_PE", "FLUX_TASK_RANK",
                                          "SLURM_PROCID"};

bool isFirstRank() {
    for (const char* variable : RANK_VARIABLES)
        if (const char* const rank = std::getenv(variable))
            return std::strtol(rank, nullptr, 10) == 0;
    return true;
}

using Options = std::vector<CommandLineOption>;

std::string describe(const char* title, const Options& options) {
    constexpr int WIDTH = 34;
    std::ostringstream text;
    text << '\n' << title << ":\n";
    for (const CommandLineOption& option : options) {
        if (option.meaning.empty())
            continue;
        std::string usage(option.word);
        if (!option.values.empty())
            usage.append(1, ' ').append(option.values);
        text << "  " << std::left << std::setw(WIDTH) << usage << ' ' << option.meaning << '\n';
    }
    return text.str();
}

std::string versionText() {
    return OrvexVersion::getVersionedProductName() + " (" + OrvexVersion::_buildArch + '/' +
           OrvexVersion::_buildEnv + ")\n";
}

} // namespace

std::string Machine::helpText() {
    return "The server of " + versionText() +
           "\n"
           "  orvexsim -s [OPTION...] [SESSION FILE]                                 one process\n"
           "  mpirun.openmpi -np N orvexsim -mpi openmpi4 [OPTION...] [SESSION FILE] a job under Open MPI\n"
           "  mpiexec.mpich -n N orvexsim -mpi mpich2 [OPTION...] [SESSION FILE]     a job under MPICH\n"
           "\nClients talk to it with orvexctl. Options are compared whole; a value is the next word.\n" +
           describe("What it is", listStartOptions()) + describe("The server", ServerHostOptions::list()) +
           describe("Every process of a job", listCommonOptions()) +
           describe("Answered at once, by one process of a job",
                    {{HELP, "", "this text"}, {VERSION, "", "the version"}}) +
           "\nExit values add up: 1 server error, 2 invalid server argument, 4 file error, 16 "
           "floating-point\n"
           "error, 32 non-recoverable error.\n";
}

bool Machine::answerQuestion(int argc, const char* const* argv) {
    Options options = listStartOptions();
    for (const Options& more : {listCommonOptions(), ServerHostOptions::list()})
        options.insert(options.end(), more.begin(), more.end());
    ConsumedOptions consumed;
    CommandLine line(argc, argv, consumed);
    while (line.next()) {
        const bool isHelp = line.word() == HELP;
        if (isHelp || line.word() == VERSION) {
            if (isFirstRank() && !(std::cout << (isHelp ? helpText() : versionText()) << std::flush))
                updateExitStatus(ExitStatus(ExitStatus::FILE_ERROR));
            return true;
        }
        const auto option = std::find_if(options.begin(), options.end(),
                                         [&line](const auto& each) { return line.isAt(each); });
        if (option != options.end() && line.hasValues(*option))
            line.consume(*option); // its value is no question
    }
    return false;
}
