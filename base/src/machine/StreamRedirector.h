#pragma once

#include "machine/MachineExport.h"

#include <cstdio>
#include <string>

/// Redirects a C stream of this process while the object lives, on the level of its descriptor: it also
/// reaches libraries that write to the descriptor by themselves.
class ORVEX_MACHINE_EXPORT StreamRedirector {
public:
    /// Into the file `path`, which is created or emptied. @throw SystemError when it can't be opened
    StreamRedirector(FILE* stream, const std::wstring& path);
    /// Onto an open descriptor, which stays the caller's. @throw SystemError when it isn't open
    StreamRedirector(FILE* stream, const int& descriptor);
    /// Puts the stream back.
    ~StreamRedirector();
    StreamRedirector(const StreamRedirector&) = delete;
    StreamRedirector& operator=(const StreamRedirector&) = delete;

    /// The destructor then moves the stream to `descriptor` instead of its old place. @throw SystemError when
    /// it isn't open
    void setRestoreDescriptor(int descriptor);
    /// The descriptor of the stream's old place, -1 when the stream was closed.
    int getOriginalFileStream() const { return _restoreDescriptor; }

private:
    void redirectToFile(const std::wstring& path);
    void redirect(int descriptor);
    void restore();

    FILE* _stream;
    int _fileDescriptor;
    int _restoreDescriptor = -1;
};
