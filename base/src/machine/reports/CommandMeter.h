#pragma once

#include "kernel/Properties.h"

#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace Platform {
class MemoryQuery;
}

/// Measures the cost of a command on this rank: its processor time and waiting, memory and messages.
///
/// The meter notes what the process has used when a command begins, and takes the difference at its end. It
/// writes both into this rank's profile (ProfileLayout), where others read them. A command may run inside
/// another one. Main thread; local.
class CommandMeter {
public:
    /// Plain values, so that ranks can gather them. Times in s, memory in bytes.
    struct Cost {
        double wall = 0.0;      ///< since begin()
        double processor = 0.0; ///< of all threads of this process
        double waiting = 0.0;   ///< in operations of the message layer that may wait, without `lent`
        double lent = 0.0;      ///< asleep while another rank's threads had the processor
        double peakMemory = 0.0;
        double addedMemory = 0.0;
        double messages = 0.0; ///< operations of the message layer
        double bytes = 0.0;    ///< of their buffers
    };

    static CommandMeter& getSingleton();
    CommandMeter(const CommandMeter&) = delete;
    CommandMeter& operator=(const CommandMeter&) = delete;

    void begin(const std::string& command);
    /// Of the innermost command that has begun; all zero when there is none.
    Cost end(bool hasFailed);
    /// The name of that command, and when it began [s since 1970]; before end().
    std::string getCommand() const;
    double getBeginning() const;
    /// The cost of the outermost command at work on this rank so far, with the keys of a bill, and "rank";
    /// empty when none is at work. Any thread.
    Properties describeSoFar();
    /// Sums over the commands that have ended, the outermost ones; the largest of peakMemory.
    const Cost& getTotal() const { return _total; }

private:
    struct Start {
        std::string command;
        double at = 0.0; ///< [s] since 1970
        std::uint64_t tick = 0;
        double processor = 0.0;
        std::uint64_t waitTicks = 0;
        std::uint64_t lentTicks = 0;
        std::uint64_t generation = 0;
        std::uint64_t bytes = 0;
        long long memory = 0;
        long long highWater = 0;
    };

    CommandMeter();
    ~CommandMeter();
    static Start measure(Platform::MemoryQuery& query);
    static Cost subtract(const Start& end, const Start& begin);

    const std::unique_ptr<Platform::MemoryQuery> _query;
    mutable std::mutex _mutex; ///< guards the next one against the threads that ask
    std::vector<Start> _open;  ///< the outermost first
    Cost _total;
};
