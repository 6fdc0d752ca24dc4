#include "kernel/server/CommandDeadline.h"

#include "kernel/Error.h"
#include "kernel/Properties.h"
#include "kernel/Task.h"

#include "platform/Log.h"

#include <asio/io_context.hpp>
#include <asio/post.hpp>
#include <asio/steady_timer.hpp>

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdio>
#include <utility>

namespace {

constexpr std::chrono::milliseconds LOOK_PERIOD{250}; ///< beyond the deadline

} // namespace

struct CommandDeadline::Timer {
    explicit Timer(asio::io_context& context) : timer(context) {}
    asio::steady_timer timer;
};

CommandDeadline::CommandDeadline(std::shared_ptr<asio::io_context> loop, double seconds, std::string command,
                                 std::chrono::milliseconds patience, Tell tell)
    : _context(std::move(loop)), _timer(std::make_unique<Timer>(*_context)), _seconds(seconds),
      _command(std::move(command)), _patience(patience), _tell(std::move(tell)) {}

CommandDeadline::~CommandDeadline() = default;

std::string CommandDeadline::nameOf(double seconds) {
    struct Unit {
        double seconds;
        const char* name;
    };
    constexpr std::array UNITS{Unit{3600.0, "h"}, Unit{60.0, "m"}, Unit{1.0, "s"}};
    const Unit* const unit = std::find_if(UNITS.begin(), UNITS.end() - 1, [seconds](const Unit& each) {
        return seconds >= each.seconds && std::fmod(seconds, each.seconds) == 0.0;
    });
    char text[48];
    std::snprintf(text, sizeof text, "%.10g %s", seconds / unit->seconds, unit->name);
    return text;
}

void CommandDeadline::begin() noexcept {
    try {
        Clock::time_point time;
        {
            const std::lock_guard guard(_mutex);
            _running = true;
            _thread = std::this_thread::get_id();
            _began = Clock::now();
            time =
                _began + std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(_seconds));
        }
        asio::post(*_context, [self = shared_from_this(), time] { self->arm(time); });
    } catch (const std::exception& error) {
        OS::Log::instance("Default").warning("CommandDeadline::begin", "@0@ runs without its deadline: @1@",
                                             _command, error.what());
    }
}

void CommandDeadline::end() {
    {
        const std::lock_guard guard(_mutex);
        _ended = true;
        if (!std::exchange(_running, false))
            return;
    }
    asio::post(*_context, [self = shared_from_this()] { self->_timer->timer.cancel(); });
}

void CommandDeadline::arm(Clock::time_point time) {
    {
        const std::lock_guard guard(_mutex);
        if (_ended)
            return;
    }
    _timer->timer.expires_at(time);
    _timer->timer.async_wait([self = shared_from_this()](const asio::error_code& cancelled) {
        if (!cancelled)
            self->onTime();
    });
}

void CommandDeadline::onTime() {
    const Clock::time_point now = Clock::now();
    std::string text;
    {
        const std::lock_guard guard(_mutex);
        if (_ended)
            return;
        text = cancelOrComplain(now);
    }
    if (!text.empty())
        _tell(text);
    arm(now + LOOK_PERIOD);
}

/// @return what the client should know, empty: nothing new
std::string CommandDeadline::cancelOrComplain(Clock::time_point now) {
    const std::string wayOut =
        " \"orvexctl where\" tells where each rank stands, and \"orvexctl cancel --force\" "
        "takes the job down.";
    if (!_cancelled) {
        _cancelled = Task::cancelOn(_thread, _began);
        _cancelTime = now;
        if (_cancelled || std::exchange(_toldNoTask, true))
            return {};
        return "The deadline of " + nameOf(_seconds) + " has passed, but \"" + _command +
               "\" runs no task that can be cancelled. It is cancelled when it begins one." + wayOut;
    }
    if (now - _cancelTime < _patience || std::exchange(_toldNoLook, true))
        return {};
    return "The deadline of " + nameOf(_seconds) + " has passed, but \"" + _command +
           "\" hasn't looked for the cancel for " + nameOf(std::chrono::duration<double>(_patience).count()) +
           "." + wayOut;
}

void CommandDeadline::explain(Properties& error) const {
    const std::string message = Error::getMessage(error);
    const std::lock_guard guard(_mutex);
    if (_cancelled && message.ends_with(Task::WAS_CANCELLED)) // it may have failed for another reason
        error.set(Error::MESSAGE_TAG, message + ": the deadline of " + nameOf(_seconds) + " has passed");
}

void CommandDeadline::describe(std::thread::id thread, Properties& running) const {
    const std::lock_guard guard(_mutex);
    if (!_running || _thread != thread)
        return;
    running.set("deadline", _seconds);
    running.set("deadlineLeft", _seconds - std::chrono::duration<double>(Clock::now() - _began).count());
}
