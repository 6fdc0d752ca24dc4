#include "platform/Pipe.h"

#include "platform/Time.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cmath>
#include <csignal>
#include <ctime>
#include <fcntl.h>
#include <poll.h>
#include <pthread.h>
#include <system_error>
#include <unistd.h>
#include <utility>

namespace {

/// Moves a descriptor away from those of the standard streams, which a child gets anew.
int aboveStandardStreams(int descriptor) {
    if (descriptor > STDERR_FILENO)
        return descriptor;
    const int moved = ::fcntl(descriptor, F_DUPFD_CLOEXEC, STDERR_FILENO + 1);
    const int error = errno;
    ::close(descriptor);
    errno = error;
    return moved;
}

/// Waits until `descriptor` is ready. @return above 0 when it is, 0 when the time is up, below 0 on failure
int waitFor(int descriptor, short events, double timeLimit) {
    const double end = Platform::time().getTime() + timeLimit;
    for (;;) {
        int milliseconds = -1;
        if (timeLimit >= 0.0) {
            const double left = std::max(0.0, end - Platform::time().getTime());
            milliseconds = static_cast<int>(std::min(std::ceil(left * 1e3), static_cast<double>(INT_MAX)));
        }
        pollfd ready{descriptor, events, 0};
        const int result = ::poll(&ready, 1, milliseconds);
        if (result >= 0 || errno != EINTR)
            return result;
    }
}

/// A write to a pipe without a reader would end the process by SIGPIPE: the signal is kept from this thread
/// and taken away when the write caused it.
class BrokenPipeQuiet {
public:
    BrokenPipeQuiet() {
        sigset_t pending;
        sigemptyset(&_pipe);
        sigaddset(&_pipe, SIGPIPE);
        sigemptyset(&pending);
        sigpending(&pending);
        _wasPending = sigismember(&pending, SIGPIPE) == 1;
        pthread_sigmask(SIG_BLOCK, &_pipe, &_before);
    }
    BrokenPipeQuiet(const BrokenPipeQuiet&) = delete;
    BrokenPipeQuiet& operator=(const BrokenPipeQuiet&) = delete;
    ~BrokenPipeQuiet() {
        if (!_wasPending) {
            const timespec now{};
            while (sigtimedwait(&_pipe, nullptr, &now) < 0 && errno == EINTR) {
            }
        }
        pthread_sigmask(SIG_SETMASK, &_before, nullptr);
    }

private:
    sigset_t _pipe{};
    sigset_t _before{};
    bool _wasPending = false;
};

} // namespace

Pipe::Pipe() : _read(-1), _write(-1) {
    int ends[2];
    if (::pipe2(ends, O_CLOEXEC) != 0)
        throw std::system_error(errno, std::generic_category(), "Pipe");
    _read = aboveStandardStreams(ends[0]);
    _write = aboveStandardStreams(ends[1]);
    if (_read < 0 || _write < 0) {
        const int error = errno;
        closeReadEnd();
        closeWriteEnd();
        throw std::system_error(error, std::generic_category(), "Pipe");
    }
}

Pipe::Pipe(int readDescriptor, int writeDescriptor) : _read(readDescriptor), _write(writeDescriptor) {}

Pipe::~Pipe() {
    closeReadEnd();
    closeWriteEnd();
}

int Pipe::read(char* buffer, std::size_t count, double timeLimit) {
    if (_read < 0)
        return FAILED;
    const int ready = waitFor(_read, POLLIN, timeLimit);
    if (ready <= 0)
        return ready == 0 ? TIMED_OUT : FAILED;
    const ssize_t n = ::read(_read, buffer, std::min(count, static_cast<std::size_t>(INT_MAX)));
    if (n > 0)
        return static_cast<int>(n);
    if (n == 0)
        return count == 0 ? 0 : END_OF_FILE;
    return errno == EINTR || errno == EAGAIN ? 0 : FAILED;
}

bool Pipe::write(const char* data, std::size_t count, double timeLimit) {
    if (_write < 0)
        return false;
    const BrokenPipeQuiet quiet;
    while (count > 0) {
        if (waitFor(_write, POLLOUT, timeLimit) <= 0)
            return false;
        // No more than a pipe that is ready takes without waiting, so that the time limit holds.
        const ssize_t n = ::write(_write, data, std::min(count, static_cast<std::size_t>(PIPE_BUF)));
        if (n < 0 && errno != EINTR && errno != EAGAIN)
            return false;
        if (n > 0) {
            data += n;
            count -= static_cast<std::size_t>(n);
        }
    }
    return true;
}

void Pipe::closeReadEnd() {
    if (_read >= 0)
        ::close(std::exchange(_read, -1));
}

void Pipe::closeWriteEnd() {
    if (_write >= 0)
        ::close(std::exchange(_write, -1));
}
