#pragma once

#include "machine/MachineExport.h"

#include <fstream>
#include <ostream>
#include <streambuf>
#include <string>

/// Stands under a stream of each process of a parallel job: one lock, a prefix with the rank and a log file
/// where wanted, and one write for each block, so that lines of different threads and ranks don't tear.
///
/// Any thread may write. A block is the text between two flushes, or a full buffer; each gets the
/// prefix. Output is never a reason to fail: text that can't be written is lost, and so is all output once
/// the process is exiting.
class ORVEX_MACHINE_EXPORT ParallelConsoleBuf : public std::basic_streambuf<char> {
public:
    /// Puts itself under `target`, which must outlive it.
    /// @param logDirectory  where "partition<rank>.log" goes
    /// @param logFile  whether blocks go to that file from the start
    /// @param console  whether blocks of this rank go to the console, under the rank's prefix; the master's
    /// console is always on, without a prefix where this is false
    /// @param bufferSize  [bytes], at least 1
    ParallelConsoleBuf(std::ostream& target, const std::string& logDirectory, bool logFile, bool console,
                       int bufferSize);
    /// Flushes and gives the stream its old buffer back.
    ~ParallelConsoleBuf() override;
    ParallelConsoleBuf(const ParallelConsoleBuf&) = delete;
    ParallelConsoleBuf& operator=(const ParallelConsoleBuf&) = delete;

    // A switch is for the text that follows it. Text from before goes where it was to go.
    /// Opens (and empties) or closes the log file.
    /// @return 0, or the system's error number: the file couldn't be opened, and the log is off
    int enableLogFile(bool on);
    /// The path of the log file of `rank`, in the bytes of the system.
    std::string getLogPath(unsigned rank) const;
    void enableConsole(bool on);
    bool isConsoleOn() const;

protected:
    int_type overflow(int_type character) override;
    std::streamsize xsputn(const char* text, std::streamsize count) override;
    int sync() override;

private:
    void append(const char* text, std::size_t count);
    void flushLocked();
    int openLogLocked();

    // The base class's put area stays empty, so that every character comes through overflow() or xsputn() and
    // thus under the lock: threads that fill a put area side by side would run over its end.
    std::string _buffer;
    std::size_t _bufferSize;
    std::string _prefix;
    std::string _logDirectory;
    bool _logFileOn = false;
    bool _consoleOn = false;
    std::size_t _lostBytes = 0; ///< which the console didn't take
    std::ostream* _target;
    std::ofstream _logStream;
    std::streambuf* _savedBuffer;
};
