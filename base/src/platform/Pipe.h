#pragma once

#include "platform/PlatformExport.h"

#include <cstddef>

/// A one-way stream of bytes between processes or threads. One reader and one writer at a time.
class ORVEX_PLATFORM_EXPORT Pipe {
public:
    /// Results of read() beside a count of bytes. 0 is woken without data: read again.
    static constexpr int END_OF_FILE = -1;
    static constexpr int FAILED = -2;
    static constexpr int TIMED_OUT = -3;

    /// Both ends in this process. @throw std::system_error when there are no descriptors left
    Pipe();
    /// Takes over descriptors; -1 for an end that isn't here.
    Pipe(int readDescriptor, int writeDescriptor);
    Pipe(const Pipe&) = delete;
    Pipe& operator=(const Pipe&) = delete;
    virtual ~Pipe();

    /// Reads what there is, at most `count` bytes, waiting for the first at most `timeLimit` seconds
    /// (negative: without limit).
    /// @return the number of bytes, 0, or one of the values above
    virtual int read(char* buffer, std::size_t count, double timeLimit);
    /// Writes all, waiting at most `timeLimit` seconds (negative: without limit) each time the pipe is full.
    /// @return false when the reader is gone or the time is up; a part may have been written
    virtual bool write(const char* data, std::size_t count, double timeLimit = -1.0);

    void closeReadEnd();
    void closeWriteEnd();
    int getReadDescriptor() const { return _read; }
    int getWriteDescriptor() const { return _write; }

private:
    int _read;
    int _write;
};
