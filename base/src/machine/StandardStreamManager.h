#pragma once

#include "machine/MachineExport.h"

#include <cstdio>
#include <memory>
#include <string>
#include <utility>

/// Looks after the standard output and error streams of the process: they can be silenced, restored, or moved
/// for good into text files that live as long as the job.
///
/// Main thread.
class ORVEX_MACHINE_EXPORT StandardStreamManager {
public:
    /// Redirects nothing yet.
    /// @param directory  where the text files go, as "<program><pid>-stdout.txt" and
    /// "<program><pid>-stderr.txt"
    StandardStreamManager(const std::wstring& directory, bool);
    /// Restores both streams and removes the text files.
    ~StandardStreamManager();
    StandardStreamManager(const StandardStreamManager&) = delete;
    StandardStreamManager& operator=(const StandardStreamManager&) = delete;

    /// Moves both streams for good into their text files, new ones that only this user may open; a silent
    /// stream stays silent and goes there when it is restored. A second call changes nothing.
    /// @return the paths, standard output first
    /// @throw InternalError when a file can't be opened; standard output may have been moved then
    std::pair<std::wstring, std::wstring> redirectOriginalStreamsToFile();
    bool hasRedirectedOriginalStreams() const;

    /// Silences both streams.
    void redirectToNullDevice();
    /// Ends the silence: each stream is back at its old place, or in its text file if it was moved meanwhile.
    void restore();
    /// Whether at least one of the streams isn't silenced.
    bool hasNullRedirection() const;
    /// Stores a prefix for both streams.
    void prependOutput(std::string prefix);

private:
    class StreamManager;

    static std::unique_ptr<StreamManager> createStreamManager(FILE* stream, const std::wstring& directory,
                                                              const std::wstring& name);

    // In this order: standard error is let go first.
    std::unique_ptr<StreamManager> _standardOutputManager;
    std::unique_ptr<StreamManager> _standardErrorManager;
};
