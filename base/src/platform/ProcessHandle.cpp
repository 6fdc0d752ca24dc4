#include "platform/ProcessHandle.h"

#include "platform/ChildKeeper.h"
#include "platform/Descriptor.h"
#include "platform/ProcFs.h"
#include "platform/ProcessHandleImpl.h"
#include "platform/Time.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <fcntl.h>
#include <poll.h>
#include <sys/wait.h>
#include <unistd.h>

namespace OS::Process {

namespace {

constexpr int NOT_COLLECTABLE = 255; // the exit status when somebody else has taken the child's end

int toExitStatus(int status) {
    return WIFSIGNALED(status) ? 128 + WTERMSIG(status) : WEXITSTATUS(status);
}

/// Waits for a descriptor that tells the end of a process, or a moment when the system has none.
void waitForEnd(const Descriptor& end, double seconds) {
    constexpr double SLICE = 0.005; // [s] between two looks without such a descriptor
    if (!end) {
        Platform::time().sleep(std::min(SLICE, seconds));
        return;
    }
    pollfd polled{end.get(), POLLIN, 0};
    // A wait that a signal cut short is followed by another.
    ::poll(&polled, 1, static_cast<int>(std::clamp(seconds, 0.0, 1e6) * 1e3) + 1);
}

} // namespace

bool ProcessHandle::Impl::poll() {
    if (exitStatus)
        return true;
    int status = 0;
    const int result = ::waitpid(pid, &status, WNOHANG);
    if (result == pid)
        exitStatus = toExitStatus(status);
    else if (result < 0 && errno != EINTR)
        exitStatus = NOT_COLLECTABLE;
    return exitStatus.has_value();
}

bool ProcessHandle::Impl::waitUntil(double until) {
    if (poll())
        return true;
    const Descriptor end(ProcFs::openEndOfProcess(pid));
    while (!poll()) {
        const double left = until < 0.0 ? 3600.0 : until - Platform::time().getTime();
        if (left <= 0.0)
            return false;
        waitForEnd(end, left);
    }
    return true;
}

void ProcessHandle::Impl::signal(int number) {
    // The child isn't collected yet, so its number can't be another's. It may have ended: then nothing
    // happens.
    if (!exitStatus)
        ::kill(ownGroup ? -pid : pid, number);
}

void ProcessHandle::Impl::dropOutput() {
    if (output && !outputTaken) {
        ChildKeeper::drain(Descriptor(::fcntl(output->getReadDescriptor(), F_DUPFD_CLOEXEC, 3)), false);
        output.reset();
    }
}

ProcessHandle::ProcessHandle(std::unique_ptr<Impl> impl) : _impl(std::move(impl)) {}

ProcessHandle::~ProcessHandle() {
    if (_impl->poll())
        return;
    _impl->outputTaken = false; // its reader has stopped
    _impl->dropOutput();
    ChildKeeper::collect(_impl->pid);
}

int ProcessHandle::getPid() const {
    return _impl->pid;
}

bool ProcessHandle::isAlive() {
    return !_impl->poll();
}

std::optional<int> ProcessHandle::wait(double timeLimit) {
    _impl->dropOutput();
    _impl->waitUntil(timeLimit < 0.0 ? -1.0 : Platform::time().getTime() + timeLimit);
    return _impl->exitStatus;
}

void ProcessHandle::terminate(double grace) {
    _impl->dropOutput();
    if (_impl->poll())
        return;
    _impl->signal(SIGTERM);
    _impl->signal(SIGCONT); // a stopped process ends only when it goes on
    if (!_impl->waitUntil(Platform::time().getTime() + std::max(grace, 0.0))) {
        _impl->signal(SIGKILL);
        _impl->waitUntil(-1.0);
    }
}

Pipe* ProcessHandle::getOutput() {
    _impl->outputTaken = _impl->output != nullptr;
    return _impl->output.get();
}

Pipe* ProcessHandle::getInput() {
    return _impl->input.get();
}

} // namespace OS::Process
