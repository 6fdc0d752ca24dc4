#include "platform/ChildKeeper.h"

#include "platform/Io.h"
#include "platform/Pipe.h"
#include "platform/QuietThread.h"

#include <algorithm>
#include <cerrno>
#include <mutex>
#include <poll.h>
#include <sys/wait.h>
#include <system_error>
#include <thread>
#include <unistd.h>
#include <utility>
#include <vector>

namespace {

struct Output {
    Descriptor descriptor;
    bool echo = false;
};

/// The one keeper. Never destroyed, since a handle may be the last to go; its thread ends with the process's
/// static objects.
class Keeper {
public:
    static Keeper& get() {
        static auto* keeper = new Keeper;
        static const Ender ender{*keeper};
        return *keeper;
    }

    void add(Output output) {
        const std::lock_guard lock(_mutex);
        _newOutputs.push_back(std::move(output));
        wake();
    }
    void add(int pid) {
        const std::lock_guard lock(_mutex);
        _newChildren.push_back(pid);
        wake();
    }

private:
    struct Ender {
        Keeper& keeper;
        ~Ender() { keeper.end(); }
    };

    /// With the lock held.
    void wake() {
        if (_ended)
            return; // the process is about to end: its children are looked after by the system
        try {
            if (!_thread.joinable())
                _thread = startQuietThread("children", [this] { run(); });
        } catch (const std::system_error&) {
            return; // no thread to be had: the next child tries again
        }
        if (!_wake.write("", 1, 0.0)) {
            // The pipe is full of wake-ups: one more isn't needed.
        }
    }
    void end() {
        {
            const std::lock_guard lock(_mutex);
            wakeForEnd();
        }
        if (_thread.joinable())
            _thread.join();
    }
    void wakeForEnd() {
        _ended = true;
        _wake.closeWriteEnd();
    }

    void run() {
        std::vector<Output> outputs;
        std::vector<int> children;
        for (;;) {
            if (!wait(outputs, children.empty()))
                return;
            {
                const std::lock_guard lock(_mutex);
                std::move(_newOutputs.begin(), _newOutputs.end(), std::back_inserter(outputs));
                _newOutputs.clear();
                children.insert(children.end(), _newChildren.begin(), _newChildren.end());
                _newChildren.clear();
            }
            std::erase_if(children, [](int pid) {
                const int result = ::waitpid(pid, nullptr, WNOHANG);
                return result > 0 || (result < 0 && errno != EINTR);
            });
        }
    }

    /// Waits for output, a wake-up or the time to look after the children. @return false at the end
    bool wait(std::vector<Output>& outputs, bool noChildren) {
        constexpr int LOOK_AFTER = 200; // [ms]
        std::vector<pollfd> polled{{_wake.getReadDescriptor(), POLLIN, 0}};
        for (const Output& output : outputs)
            polled.push_back({output.descriptor.get(), POLLIN, 0});
        if (::poll(polled.data(), polled.size(), noChildren ? -1 : LOOK_AFTER) < 0)
            return errno == EINTR;
        for (std::size_t i = outputs.size(); i-- > 0;) {
            if (polled[i + 1].revents != 0 && !read(outputs[i]))
                outputs.erase(outputs.begin() + static_cast<std::ptrdiff_t>(i));
        }
        if (polled[0].revents == 0)
            return true;
        char bytes[64];
        return _wake.read(bytes, sizeof bytes, 0.0) >= 0;
    }

    /// @return false when there is nothing more to come
    static bool read(const Output& output) {
        char buffer[4096];
        const ssize_t n = ::read(output.descriptor.get(), buffer, sizeof buffer);
        if (n > 0 && output.echo)
            Platform::io().write(STDOUT_FILENO, buffer,
                                 static_cast<std::size_t>(n)); // nobody to tell of a failure
        return n > 0 || (n < 0 && (errno == EINTR || errno == EAGAIN));
    }

    std::mutex _mutex;
    Pipe _wake;
    std::thread _thread;
    bool _ended = false;
    std::vector<Output> _newOutputs;
    std::vector<int> _newChildren;
};

} // namespace

void ChildKeeper::drain(Descriptor output, bool echo) {
    if (output)
        Keeper::get().add(Output{std::move(output), echo});
}

void ChildKeeper::collect(int pid) {
    Keeper::get().add(pid);
}
