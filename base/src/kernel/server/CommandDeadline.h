#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

class Properties;

namespace asio {
class io_context;
}

/// The time that a client allows one of its commands. It counts from the moment at which the command begins
/// to run. Then the command's task is cancelled, now or as soon as it has one.
class CommandDeadline : public std::enable_shared_from_this<CommandDeadline> {
public:
    using Tell = std::function<void(const std::string& text)>;

    /// @param seconds   > 0
    /// @param patience  from the cancel to the news that the command doesn't look for it
    /// @param tell      tells the client why the command still runs; on the service thread
    CommandDeadline(std::shared_ptr<asio::io_context> loop, double seconds, std::string command,
                    std::chrono::milliseconds patience, Tell tell);
    CommandDeadline(const CommandDeadline&) = delete;
    CommandDeadline& operator=(const CommandDeadline&) = delete;
    ~CommandDeadline();

    /// The command begins on the calling thread. Throws nothing.
    void begin() noexcept;
    /// The command has ended: no task is cancelled any more. Any thread.
    void end();
    /// Adds to the error of the cancelled command that the deadline was the cause. After end().
    void explain(Properties& error) const;
    /// Adds to the status of a command that runs on `thread`: "deadline" and "deadlineLeft" [s].
    void describe(std::thread::id thread, Properties& running) const;

    /// As in "30 m": a whole number of hours or minutes, else seconds.
    static std::string nameOf(double seconds);

private:
    using Clock = std::chrono::steady_clock;
    struct Timer;

    void arm(Clock::time_point time);
    void onTime();
    std::string cancelOrComplain(Clock::time_point now);

    const std::shared_ptr<asio::io_context> _context;
    const std::unique_ptr<Timer> _timer; ///< service thread
    const double _seconds;
    const std::string _command;
    const std::chrono::milliseconds _patience;
    const Tell _tell;

    mutable std::mutex _mutex; ///< guards what follows; held while a task is cancelled
    std::thread::id _thread;   ///< that runs the command
    Clock::time_point _began;
    Clock::time_point _cancelTime;
    bool _running = false;
    bool _ended = false;
    bool _cancelled = false;
    bool _toldNoTask = false;
    bool _toldNoLook = false;
};
