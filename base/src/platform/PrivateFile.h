#pragma once

#include "platform/PlatformExport.h"

#include <cstddef>
#include <optional>
#include <string>

namespace Platform {

/// Files that hold a secret of this user, and the folders above them. Local, any thread; no operation throws
/// for what it finds on the disk.
class ORVEX_PLATFORM_EXPORT PrivateFile {
public:
    /// Tells why another user could exchange what lies in `directory`: a folder on the way there, behind all
    /// links, belongs to somebody else or lets others write. Good are folders of this user and of the system,
    /// also with the sticky bit as /tmp, and those that the user's private group may write to.
    /// @return words for people, with the remedy; empty when nobody can
    static std::string findWeakness(const std::wstring& directory);

    /// Reads a regular file of this user that nobody else may read or write and that lies in a folder without
    /// weakness. A symbolic link in place of the file isn't followed.
    /// @param reason  gets, when there is no such file of at most `maxBytes` bytes, why, in words for people
    static std::optional<std::string> read(const std::wstring& path, std::size_t maxBytes,
                                           std::string& reason);
};

} // namespace Platform
