#pragma once

#include "platform/PlatformExport.h"

#include <optional>
#include <string>

namespace Platform {

/// The operating system and the user on whose behalf the process runs. Local, any thread.
class ORVEX_PLATFORM_EXPORT System {
public:
    /// The name of the effective user from the user data base, its number as text when it has none there.
    /// No environment variable has a say.
    std::string getUserName() const;
    unsigned getUserId() const;
    /// The home directory from the user data base, empty when there is none.
    std::wstring getHomeDirectory() const;
    /// The full path of the running executable, also after it was replaced on the disk.
    std::wstring getExecutablePath() const;
    /// Name and version of the operating system, as in "Debian GNU/Linux 12 (bookworm), Linux 6.1.0".
    std::string getOs() const;
    /// Version of the C library, as in "2.36".
    std::string getGlibc() const;
    /// A text that the system makes anew each time that the host starts; empty when it tells none. A
    /// container has that of its host.
    std::string getBootId() const;
    /// The value of the environment variable `name`; none when it is not set.
    std::optional<std::string> getEnvironment(const std::string& name) const;
};

/// The one system service of the process.
ORVEX_PLATFORM_EXPORT System& system();

} // namespace Platform
