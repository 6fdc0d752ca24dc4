#pragma once

#include "kernel/profile/ProfileJob.h"

#include <optional>
#include <string>
#include <vector>

class CtlConsole;

/// Tells what dead jobs of this host did last. It needs no server.
class CtlPostmortem {
public:
    CtlPostmortem(CtlConsole& console, bool isJson) : _console(console), _isJson(isJson) {}

    /// @param words  of the command line, without the name of the command
    /// @return an ExitCode
    int run(const std::vector<std::string>& words);
    /// Tells people that there is something to see; nothing without dead jobs.
    void mention();

private:
    /// The wish in the words.
    struct Wish {
        std::string job;              ///< empty: all of them, in a list
        std::optional<unsigned> rank; ///< that one alone
        bool isRemoval = false;
    };
    static Wish parse(const std::vector<std::string>& words);
    /// The jobs with dead ranks, and those that can't be seen; the latest first.
    std::vector<ProfileJob> findJobs();
    int list(const std::vector<ProfileJob>& jobs);
    int show(const ProfileJob& job, const Wish& wish);
    int remove(const std::vector<ProfileJob>& jobs, const Wish& wish);
    int fail(const std::string& reason);

    CtlConsole& _console;
    bool _isJson;
};
