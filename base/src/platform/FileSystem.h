#pragma once

#include "platform/PlatformExport.h"

#include <cstdio>
#include <string>
#include <vector>

namespace Platform {

/// Files and directories of this host. Paths are wide text in the form of StringHelper::fromBytes(): each
/// name on the disk, also one that isn't UTF-8, can be listed and then addressed. A path with a zero
/// character leads nowhere. No operation throws for what it finds on the disk, and none waits for another
/// process. One that says false leaves the system's reason in errno. Local, any thread; the current directory
/// belongs to the whole process.
class ORVEX_PLATFORM_EXPORT FileSystem {
public:
    /// Empty when the current directory was removed.
    std::wstring getCurrentDirectory() const;
    /// @return false, with the directory unchanged, when `path` is no directory that can be entered
    bool setCurrentDirectory(const std::wstring& path);

    /// Lists the names in `path`, sorted, without "." and "..". What a symbolic link leads to decides between
    /// the two lists; a link that leads nowhere is a file.
    /// @return false, with both lists empty, when `path` can't be listed
    bool listDirectory(const std::wstring& path, std::vector<std::wstring>& directories,
                       std::vector<std::wstring>& files) const;
    /// Makes one directory below an existing one. @return true when it was made or stood there already
    bool makeDirectory(const std::wstring& path);
    /// Makes `path` and all folders that are missing above it. @return true when `path` is a directory
    /// afterwards
    bool makeDirectories(const std::wstring& path);
    /// Makes a directory of a new name that starts with `prefix` below `parent`, open to this user alone.
    /// @return its path, empty on failure
    std::wstring makeTemporaryDirectory(const std::wstring& parent, const std::wstring& prefix);

    /// True for a file, a directory or anything else that `path` leads to.
    bool exists(const std::wstring& path) const;
    bool isDirectory(const std::wstring& path) const;
    /// [bytes] Of a regular file; -1 when there is none.
    long long getSize(const std::wstring& path) const;
    /// [s] since 1970 of the last change of the content; -1.0 when there is nothing at `path`.
    double getModificationTime(const std::wstring& path) const;
    /// True when `path` exists and this process may not write to it.
    bool isReadOnly(const std::wstring& path) const;

    /// Makes an empty file, or empties the one at `path`.
    /// @return false, with all as it was, when that can't be had or what stands there is no regular file
    bool createFile(const std::wstring& path);
    /// Makes a new file of this user that nobody else may open, in place of a file or link at `path`.
    /// @return open for writing, for the caller to close; null when it can't be made
    std::FILE* createPrivateFile(const std::wstring& path);
    /// False for a directory, a pipe or a socket: a stream that opens them finds nothing, or waits for
    /// another process. True for all else, a missing file too.
    bool canBeRead(const std::wstring& path) const;
    /// False for a pipe that nobody reads and for a socket; true for all else, a missing file too.
    bool canBeWritten(const std::wstring& path) const;

    /// Deletes a file or a symbolic link, never a directory. @return true when it is gone by this call
    bool deleteFile(const std::wstring& path);
    /// Deletes `path` and everything below it, without following symbolic links. @return true when all is
    /// gone
    bool deleteTree(const std::wstring& path);
    /// Renames or moves within one disk; an existing file at `to` is replaced.
    /// @return 0, or the system's (positive) error number
    int rename(const std::wstring& from, const std::wstring& to);

    /// The bytes of `path` for calls of the system, other libraries and standard streams; empty for a path
    /// that they would cut at a zero.
    std::string toSystem(const std::wstring& path) const;
    /// The path of such bytes.
    std::wstring fromSystem(const std::string& path) const;

    /// The form in which the system takes `path`: without doubled separators. A relative path stays relative,
    /// an empty one empty.
    std::wstring getFilePath(const std::wstring& path) const;
    /// `path` from the root on, without "." and "..", symbolic links left alone. Empty stays empty.
    std::wstring getAbsolutePath(const std::wstring& path) const;
    /// `directory`, a separator unless there is one already, and `name`.
    std::wstring join(const std::wstring& directory, const std::wstring& name) const;

    wchar_t getSeparator() const { return L'/'; }
    /// The folder for temporary files of this user: TMPDIR when it names a directory, else the system's.
    std::wstring getDefaultTemporaryDirectory() const;
    /// The path of a file that swallows what is written to it.
    std::wstring getNullDevice() const;
    /// The tops of the file system: "/" alone on this system.
    std::vector<std::string> getRoots() const;

    /// Makes a directory and sees that it belongs to this user and nobody else may enter. The parents that
    /// are missing are made for this user alone; the mask of the process has no effect.
    /// @return false when that can't be had: it is another user's, a link, or can't be made
    bool makePrivateDirectory(const std::wstring& path);
    /// Writes `content` to a file that this user alone may read, in one step: a reader finds the old file or
    /// the new one, never half of one. @return false when it can't be written
    bool writePrivateFile(const std::wstring& path, const std::string& content);
    /// Reads a regular file of at most `maxBytes` bytes. @return false when there is none or it is larger
    bool readFile(const std::wstring& path, std::string& content, std::size_t maxBytes) const;
};

/// The one file-system service of the process.
ORVEX_PLATFORM_EXPORT FileSystem& filesystem();

} // namespace Platform
