#include "client/OutputQueue.h"

#include "platform/Io.h"

#include <algorithm>
#include <cerrno>
#include <condition_variable>
#include <cstring>
#include <mutex>
#include <string>
#include <thread>

namespace {

constexpr std::size_t MAX_QUEUED = std::size_t(256) << 20; ///< [bytes]
constexpr std::size_t PIECE = std::size_t(64) << 10;       ///< that is written at once [bytes]

} // namespace

struct OutputQueue::State {
    explicit State(int theDescriptor) : descriptor(theDescriptor) {}
    void run();
    void check() const {
        if (!failure.empty())
            throw OutputError("The output can't be written: " + failure);
    }

    const int descriptor;
    std::mutex mutex; ///< guards what follows
    std::condition_variable changed;
    std::string text;      ///< waits to be written
    bool writing = false;  ///< the thread has a piece of it in hand
    bool started = false;  ///< there is a thread
    bool finished = false; ///< nobody adds to it any more
    std::string failure;
};

void OutputQueue::State::run() {
    std::unique_lock lock(mutex);
    for (;;) {
        changed.wait(lock, [this] { return !text.empty() || finished; });
        if (finished)
            return;
        std::string piece;
        piece.swap(text);
        writing = true;
        lock.unlock();
        std::string reason;
        for (std::size_t begin = 0; begin < piece.size() && reason.empty(); begin += PIECE)
            if (!Platform::io().write(descriptor, piece.data() + begin,
                                      std::min(PIECE, piece.size() - begin)))
                reason = std::strerror(errno);
        lock.lock();
        writing = false;
        if (failure.empty())
            failure = reason;
        changed.notify_all();
    }
}

OutputQueue::OutputQueue(int descriptor) : _state(std::make_shared<State>(descriptor)) {}

OutputQueue::~OutputQueue() {
    const std::lock_guard lock(_state->mutex);
    _state->finished = true;
    _state->changed.notify_all();
}

void OutputQueue::write(std::string_view text) {
    std::unique_lock lock(_state->mutex);
    _state->changed.wait(lock,
                         [this] { return _state->text.size() < MAX_QUEUED || !_state->failure.empty(); });
    _state->check();
    if (!_state->started)
        std::thread([state = _state] { state->run(); }).detach();
    _state->started = true;
    _state->text += text;
    _state->changed.notify_all();
}

void OutputQueue::flush(std::chrono::milliseconds time) {
    std::unique_lock lock(_state->mutex);
    _state->changed.wait_for(lock, time, [this] {
        return (_state->text.empty() && !_state->writing) || !_state->failure.empty();
    });
    _state->check();
}
