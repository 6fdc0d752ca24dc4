#pragma once

#include "kernel/KernelExport.h"
#include "kernel/profile/ProfileSnapshot.h"

#include <memory>
#include <optional>
#include <string>

namespace Platform {
class PrivateFileReader;
}

/// Reads the profile of a rank from its file, while the rank works and after it has died. The rank isn't
/// asked and isn't disturbed. Nothing in the file is trusted. Local; one thread at a time.
class ORVEX_KERNEL_EXPORT ProfileReader {
public:
    enum class Extent {
        STANDING, ///< without bills and events
        WHOLE
    };

    /// @param reason  gets, when it returns null, why this is no file of a profile of this user, in words for
    ///                people
    static std::unique_ptr<ProfileReader> open(const std::string& path, std::string& reason);
    ProfileReader(const ProfileReader&) = delete;
    ProfileReader& operator=(const ProfileReader&) = delete;
    ~ProfileReader();

    /// The state of now; takes about 0.1 ms. A record that the rank writes at this moment is left out.
    /// @param reason  gets, when there is none, why the content is no profile
    std::optional<ProfileSnapshot> read(std::string& reason, Extent extent = Extent::WHOLE);

    /// Opens and reads.
    static std::optional<ProfileSnapshot> readFile(const std::string& path, std::string& reason,
                                                   Extent extent = Extent::WHOLE);

private:
    struct Copies;
    ProfileReader(const std::string& path, std::unique_ptr<Platform::PrivateFileReader> file);

    std::string _path;
    std::unique_ptr<Platform::PrivateFileReader> _file;
    std::unique_ptr<Copies> _copies;
};
