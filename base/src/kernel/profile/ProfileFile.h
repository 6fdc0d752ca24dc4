#pragma once

#include "kernel/KernelExport.h"
#include "kernel/profile/ProfileLayout.h"

#include <memory>
#include <string>
#include <vector>

namespace Platform {
class MappedFile;
}

/// The file of this process's profile. It lies in memory and stays when the process dies.
class ORVEX_KERNEL_EXPORT ProfileFile {
public:
    /// Makes the file and fills in what tells this process from others (version, byteOrder, size, pid,
    /// startStamp, pidNamespace, bootId); the rest is zero. The caller fills in the rest of the header, then
    /// the magic number: until then the file is no profile. Once for each process.
    /// @param reason  gets, when it returns null, why there is no file, in words for people
    static std::unique_ptr<ProfileFile> create(std::string* reason = nullptr);
    ProfileFile(const ProfileFile&) = delete;
    ProfileFile& operator=(const ProfileFile&) = delete;
    /// Removes the file, as the orderly end of the process. A forked child leaves it alone.
    ~ProfileFile();

    ProfileLayout::Page& getPage();
    const std::string& getPath() const { return _path; }
    /// The destructor leaves the file: the process ends by a failure.
    void keep() { _isKept = true; }

    // ---- The files of all processes. Any thread.

    /// Paths of the files of this user on this host, of living and of dead processes.
    static std::vector<std::string> find();
    /// @return false when it isn't such a file, or can't be removed
    static bool remove(const std::string& path);
    /// In place of the host's own folders. Call it before anything else.
    static void setFolders(const std::vector<std::string>& folders);

private:
    ProfileFile(std::unique_ptr<Platform::MappedFile> file, const std::string& path);

    std::unique_ptr<Platform::MappedFile> _file;
    std::string _path;
    int _owner; ///< the pid
    bool _isKept = false;
};
