#include "kernel/server/RollCallDesk.h"

#include "kernel/Error.h"
#include "platform/Log.h"
#include "platform/Runnable.h"
#include "platform/Thread.h"

#include <asio/io_context.hpp>
#include <asio/post.hpp>
#include <asio/steady_timer.hpp>

#include <algorithm>
#include <condition_variable>
#include <cstdio>
#include <mutex>
#include <system_error>
#include <utility>
#include <vector>

namespace {

constexpr std::size_t MAX_ASKERS = 64;

} // namespace

struct RollCallDesk::Loop {
    explicit Loop(asio::io_context& context) : timer(context) {}
    asio::steady_timer timer; ///< of the asker whose time is up next
};

/// One call at work on its thread.
class RollCallDesk::Call : public Runnable {
public:
    Call(const Callback& callback, Properties request, std::function<void(Answer)> onEnd)
        : _callback(callback), _request(std::move(request)), _onEnd(std::move(onEnd)),
          _thread(*this, "orvex-rollcall") {}

    const Properties& getRequest() const { return _request; }
    /// @throw std::system_error when the system has no thread left
    void start() { _thread.start(); }
    /// A callback can't be ended from outside.
    void stop() override {}
    void run() override {
        _onEnd(call());
        const std::lock_guard guard(_mutex);
        _ended = true;
        _changed.notify_all();
    }
    bool waitForEnd(std::chrono::milliseconds time) {
        std::unique_lock guard(_mutex);
        return _changed.wait_for(guard, time, [this] { return _ended; });
    }

private:
    Answer call() const {
        try {
            return {_callback(_request), {}};
        } catch (const InputError& error) { // the request is wrong
            return {{}, error.what()};
        } catch (const std::exception& error) {
            return {{}, std::string("The roll call failed: ") + error.what()};
        }
    }

    const Callback _callback;
    const Properties _request;
    const std::function<void(Answer)> _onEnd;
    std::mutex _mutex;
    std::condition_variable _changed;
    bool _ended = false;
    Thread _thread; // last: its destructor waits for run()
};

RollCallDesk::RollCallDesk(std::shared_ptr<asio::io_context> loop, Callback callback,
                           std::chrono::milliseconds limit)
    : _context(std::move(loop)), _loop(std::make_unique<Loop>(*_context)), _callback(std::move(callback)),
      _limit(limit), _self(std::make_shared<RollCallDesk*>(this)) {}

RollCallDesk::~RollCallDesk() {
    finish();
}

void RollCallDesk::finish() {
    if (_call && _call->waitForEnd(_limit))
        _call.reset();
    if (!_call)
        return;
    OS::Log::instance("Default").warning("RollCallDesk", "A roll call still runs at the end of the server");
    static_cast<void>(_call.release()); // its thread uses it to the end of the process
}

void RollCallDesk::ask(const Properties& request, Done done) {
    if (!_callback || _closed) {
        done({{},
              _closed ? "The server has stopped"
                      : "This server can't tell where its ranks stand: it has no error channel, as with "
                        "-nothreads"});
        return;
    }
    if (_askers.size() >= MAX_ASKERS) {
        done({{}, "Too many clients wait for a roll call"});
        return;
    }
    _askers.push_back({request, std::move(done), std::chrono::steady_clock::now() + _limit});
    if (!_call)
        beginCall();
    watchTime();
}

void RollCallDesk::beginCall() {
    if (_askers.empty())
        return;
    const Properties request = _askers.front().request;
    const auto onEnd = [context = _context, self = std::weak_ptr(_self)](Answer answer) {
        asio::post(*context, [self, answer = std::move(answer)] {
            if (const auto desk = self.lock())
                (*desk)->onAnswer(answer);
        });
    };
    try {
        _call = std::make_unique<Call>(_callback, request, onEnd);
        _call->start();
    } catch (const std::system_error& error) {
        _call.reset();
        answer([](const Asker&) { return true; },
               {{}, std::string("The roll call can't begin: ") + error.what()});
    }
}

void RollCallDesk::onAnswer(const Answer& result) {
    const std::unique_ptr<Call> ended = std::move(_call);
    answer([&](const Asker& asker) { return asker.request == ended->getRequest(); }, result);
    if (!_call)
        beginCall();
    watchTime();
}

/// Takes out those who are meant, then answers them: they may ask again.
void RollCallDesk::answer(const std::function<bool(const Asker&)>& isMeant, const Answer& answer) {
    const auto meant = std::stable_partition(_askers.begin(), _askers.end(),
                                             [&](const Asker& asker) { return !isMeant(asker); });
    const std::vector<Asker> answered(std::make_move_iterator(meant), std::make_move_iterator(_askers.end()));
    _askers.erase(meant, _askers.end());
    for (const Asker& asker : answered)
        asker.done(answer);
}

void RollCallDesk::watchTime() {
    if (_askers.empty()) {
        _loop->timer.cancel();
        return;
    }
    _loop->timer.expires_at(_askers.front().end);
    _loop->timer.async_wait([this](const asio::error_code& cancelled) {
        if (cancelled)
            return;
        const auto now = std::chrono::steady_clock::now();
        const double seconds = std::chrono::duration<double>(_limit).count();
        char text[96];
        std::snprintf(text, sizeof text, "The roll call brought no answer within %g s", seconds);
        answer([now](const Asker& asker) { return asker.end <= now; }, {{}, text});
        watchTime();
    });
}

void RollCallDesk::close() {
    _closed = true;
    answer([](const Asker&) { return true; }, {{}, "The server has stopped"});
    _loop->timer.cancel();
}
