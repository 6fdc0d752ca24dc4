#pragma once

#include "client/CommandWords.h"
#include "client/CtlConsole.h"

#include <string>
#include <string_view>
#include <vector>

/// The words behind "report", and the file that comes of them.
struct CtlReport {
    static constexpr const char* COMMAND = "GetProfile"; ///< of the server

    /// @throw UsageError
    static CtlReport parse(const std::vector<CommandWords::Word>& words);
    /// Whether the words ask for a page without a server.
    static bool isOffline(const std::vector<std::string>& words);

    /// The text of the file `from`. @throw UsageError
    std::string read() const;
    /// Makes the page of a profile and writes it, or with `json` the profile itself.
    /// @param session  for the name of the file
    /// @return a line for people that tells where it is; empty when it went to the standard output
    /// @throw InputError when it is no profile, OutputError
    std::string write(std::string_view profile, const std::string& session, bool json,
                      CtlConsole& console) const;

    std::string from;   ///< path of a saved profile; empty: from the server
    std::string output; ///< path, "-" is the standard output; empty: a name made from session and time
};
