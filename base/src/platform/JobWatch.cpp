#include "platform/JobWatch.h"

#include "platform/Descriptor.h"
#include "platform/Pipe.h"
#include "platform/ProcFs.h"
#include "platform/QuietThread.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstring>
#include <fcntl.h>
#include <poll.h>
#include <sstream>
#include <thread>
#include <unistd.h>

namespace {

struct News {
    std::size_t index = 0;
    char reason[PIPE_BUF - sizeof(std::size_t)] = {}; ///< a message of this size goes in one piece
};
static_assert(sizeof(News) == PIPE_BUF);

std::string describeLink(int pid, int descriptor) {
    return "/proc/" + std::to_string(pid) + "/fd/" + std::to_string(descriptor);
}

} // namespace

struct JobWatch::Impl {
    Callback callback;
    Pipe news = {};
    Pipe wake = {}; ///< closed to end the watch
    std::vector<Descriptor> ends = {};
    std::thread thread = {};

    std::vector<pollfd> look(int timeLimit) const;
    void run();
};

/// The state of the two pipes, then of the processes. @param timeLimit  [ms], -1: until something happens
std::vector<pollfd> JobWatch::Impl::look(int timeLimit) const {
    std::vector<pollfd> polled{{wake.getReadDescriptor(), POLLIN, 0}, {news.getReadDescriptor(), POLLIN, 0}};
    for (const Descriptor& end : ends)
        polled.push_back({end.get(), POLLIN, 0}); // -1 is passed over
    while (::poll(polled.data(), polled.size(), timeLimit) < 0 && errno == EINTR) {
    }
    return polled;
}

void JobWatch::Impl::run() {
    const std::vector<pollfd> polled = look(-1);
    if (polled[0].revents != 0)
        return;
    News message;
    if (polled[1].revents != 0 && // a process speaks before it is gone
        news.read(reinterpret_cast<char*>(&message), sizeof message, 0.0) == int{sizeof message}) {
        callback(message.index,
                 std::string(message.reason, ::strnlen(message.reason, sizeof message.reason)));
        return;
    }
    for (std::size_t i = 0; i < ends.size(); ++i) {
        if (polled[i + 2].revents != 0) {
            callback(i, {});
            return;
        }
    }
}

JobWatch::JobWatch(Callback callback) : _impl(new Impl{std::move(callback)}) {}

JobWatch::~JobWatch() {
    _impl->wake.closeWriteEnd();
    if (_impl->thread.joinable())
        _impl->thread.join();
}

std::string JobWatch::getAddress() const {
    const int descriptor = _impl->news.getWriteDescriptor();
    return std::to_string(::getpid()) + ' ' + std::to_string(descriptor) + ' ' +
           ProcFs::readLink(describeLink(::getpid(), descriptor));
}

void JobWatch::start(const std::vector<int>& pids) {
    for (const int pid : pids)
        _impl->ends.emplace_back(pid == 0 ? -1 : ProcFs::openEndOfProcess(pid));
    _impl->thread = startQuietThread("job-watch", [impl = _impl.get()] { impl->run(); });
}

bool JobWatch::hasLost() const {
    const std::vector<pollfd> polled = _impl->look(0);
    return std::any_of(polled.begin() + 2, polled.end(), [](const pollfd& end) { return end.revents != 0; });
}

int JobWatch::openNews(const std::string& address) {
    std::istringstream words(address);
    int pid = 0;
    int descriptor = -1;
    std::string pipe;
    if (!(words >> pid >> descriptor >> pipe) || pipe.empty())
        return -1;
    const std::string path = describeLink(pid, descriptor);
    if (ProcFs::readLink(path) != pipe) // a process of another host, or behind a wall
        return -1;
    return ::open(path.c_str(), O_WRONLY | O_NONBLOCK | O_CLOEXEC);
}

void JobWatch::tell(int descriptor, std::size_t index, std::string_view reason) {
    News message;
    message.index = index;
    reason.copy(message.reason, sizeof message.reason);
    // A full pipe tells of an end already; and nothing is left to do about a first process that is gone.
    if (descriptor >= 0 && ::write(descriptor, &message, sizeof message) < 0) {
    }
}
