#pragma once

#include <chrono>
#include <memory>
#include <stdexcept>
#include <string_view>

/// Text can't be written: its reader is gone, or the disk is full.
class OutputError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

/// The text on its way to a descriptor. A thread writes it, so that nobody waits for a slow reader.
class OutputQueue {
public:
    explicit OutputQueue(int descriptor);
    OutputQueue(const OutputQueue&) = delete;
    OutputQueue& operator=(const OutputQueue&) = delete;
    /// Drops what isn't written yet: flush() before.
    ~OutputQueue();

    /// Waits only while too much text is on its way. @throw OutputError when text was lost before
    void write(std::string_view text);
    /// Returns when all is written, or `time` is up. @throw OutputError when it can't be written
    void flush(std::chrono::milliseconds time = std::chrono::hours(10000));

private:
    struct State;
    std::shared_ptr<State> _state; ///< shared with the thread, which may wait for the reader for ever
};
