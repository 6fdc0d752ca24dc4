#include "platform/LauncherWatch.h"

#include "platform/Descriptor.h"
#include "platform/Pipe.h"
#include "platform/ProcFs.h"
#include "platform/QuietThread.h"
#include "platform/Time.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <poll.h>
#include <string_view>
#include <system_error>
#include <thread>
#include <unistd.h>

namespace {

/// Names of processes that start and hold the ranks of jobs; the system shows 15 characters of a name.
constexpr std::array<std::string_view, 25> LAUNCHERS = {"mpirun",
                                                        "mpiexec",
                                                        "orterun",
                                                        "orted",
                                                        "oshrun",
                                                        "prun",
                                                        "prte",
                                                        "prted",
                                                        "prterun",
                                                        "shmemrun",
                                                        "mpiexec_mpt",
                                                        "pmi_proxy",
                                                        "srun",
                                                        "slurmstepd",
                                                        "hydra_pmi_proxy",
                                                        "hydra_bstrap_pr",
                                                        "hydra_bstrap_proxy",
                                                        "aprun",
                                                        "apinit",
                                                        "palsd",
                                                        "jsrun",
                                                        "jsrund",
                                                        "pjrsh",
                                                        "flux-shell",
                                                        "yod"};

/// Those of Open MPI, which are parents of ranks.
constexpr std::array<std::string_view, 7> KILLING_LAUNCHERS = {"mpirun", "orterun", "orted",  "oshrun",
                                                               "prte",   "prted",   "prterun"};

constexpr std::size_t MOST_ANCESTORS = 64;
constexpr int INIT = 1;

std::string getFileName(const std::string& path) {
    return path.substr(path.rfind('/') + 1);
}

/// An ending tells the maker: mpirun.openmpi, mpiexec.hydra.
std::string_view getStem(std::string_view name) {
    return name.substr(0, name.find('.'));
}

template <class Names>
bool contains(const Names& names, std::string_view name) {
    return std::find(names.begin(), names.end(), getStem(name)) != names.end();
}

bool isLauncher(int pid, const std::string& name) {
    return LauncherWatch::isLauncherName(name) ||
           LauncherWatch::isLauncherName(getFileName(ProcFs::readExecutable(std::to_string(pid))));
}

/// The ancestors from the parent on, up to the launcher; the parent alone when none is a launcher. A launcher
/// has helpers between itself and its ranks, so the last of a row of launchers counts.
std::vector<LauncherWatch::Ancestor> findAncestors() {
    std::vector<LauncherWatch::Ancestor> chain;
    std::size_t wanted = 1;
    bool inLaunchers = false;
    for (int pid = ::getppid(); pid > INIT && chain.size() < MOST_ANCESTORS;) {
        const auto stat = ProcFs::readStat(pid);
        if (!stat)
            break;
        chain.push_back({pid, stat->startStamp, stat->name});
        const bool launcher = isLauncher(pid, stat->name);
        if (launcher)
            wanted = chain.size();
        if (inLaunchers && !launcher)
            break;
        inLaunchers = launcher;
        pid = stat->parent;
    }
    chain.resize(std::min(chain.size(), wanted));
    return chain;
}

bool isThere(const LauncherWatch::Ancestor& ancestor) {
    const auto stat = ProcFs::readStat(ancestor.pid);
    return stat && stat->startStamp == ancestor.startStamp && stat->state != 'Z' && stat->state != 'X';
}

} // namespace

struct LauncherWatch::Impl {
    Callback callback;
    double grace;
    int exitStatus;
    std::vector<Ancestor> ancestors = {};
    std::vector<Descriptor> ends = {}; ///< one an ancestor; empty where the system has none to give
    std::unique_ptr<Pipe> wake = {};   ///< closed to end the watch
    std::thread thread = {};
    std::thread teller = {};

    void run();
    const Ancestor* waitForLoss();
    void endProcess(const Ancestor& lost);
};

/// Waits until an ancestor is gone. @return null when the watch is stopped
const LauncherWatch::Ancestor* LauncherWatch::Impl::waitForLoss() {
    constexpr int LOOK = 1000; // [ms] when an ancestor has no descriptor that tells its end
    std::vector<pollfd> polled{{wake->getReadDescriptor(), POLLIN, 0}};
    bool complete = true;
    for (const Descriptor& end : ends) {
        polled.push_back({end.get(), POLLIN, 0}); // -1 is passed over
        complete = complete && end;
    }
    for (;;) {
        const int result = ::poll(polled.data(), polled.size(), complete ? -1 : LOOK);
        if (polled[0].revents != 0)
            return nullptr;
        if (result < 0 && errno != EINTR)
            Platform::time().sleepMilliseconds(LOOK);
        for (const Ancestor& ancestor : ancestors) {
            if (!isThere(ancestor))
                return &ancestor;
        }
    }
}

/// Tells the callback on a thread of its own, so that one that never returns can't keep the process alive.
void LauncherWatch::Impl::endProcess(const Ancestor& lost) {
    const std::string reason =
        "The process " + std::to_string(lost.pid) + " (" + lost.name + "), which held this job, has ended";
    if (callback) {
        try {
            teller = startQuietThread("launcher-loss", [tell = callback, reason] { tell(reason); });
        } catch (const std::system_error&) {
            // No thread to be had: the end comes without a word.
        }
    }
    pollfd stopped{wake->getReadDescriptor(), POLLIN, 0};
    const double end = Platform::time().getTime() + grace;
    double left = grace;
    while (left > 0.0 && stopped.revents == 0) {
        ::poll(&stopped, 1, static_cast<int>(std::min(left, 1e6) * 1e3) + 1); // cut short: waits again
        left = end - Platform::time().getTime();
    }
    if (stopped.revents == 0)
        ::_exit(exitStatus);
}

void LauncherWatch::Impl::run() {
    if (const Ancestor* lost = waitForLoss())
        endProcess(*lost);
}

LauncherWatch::LauncherWatch(Callback callback, double grace, int exitStatus)
    : _impl(new Impl{std::move(callback), grace, exitStatus}) {}

LauncherWatch::~LauncherWatch() {
    stop();
}

bool LauncherWatch::start() {
    stop();
    _impl->ancestors = findAncestors();
    if (_impl->ancestors.empty())
        return false;
    _impl->ends.clear();
    for (const Ancestor& ancestor : _impl->ancestors)
        _impl->ends.emplace_back(ProcFs::openEndOfProcess(ancestor.pid));
    _impl->wake = std::make_unique<Pipe>();
    _impl->thread = startQuietThread("launcher-watch", [impl = _impl.get()] { impl->run(); });
    return true;
}

void LauncherWatch::stop() {
    if (_impl->wake)
        _impl->wake->closeWriteEnd();
    if (_impl->thread.joinable())
        _impl->thread.join();
    if (_impl->teller.joinable()) {
        if (_impl->teller.get_id() == std::this_thread::get_id())
            _impl->teller.detach(); // asked from the callback itself
        else
            _impl->teller.join();
    }
    _impl->wake.reset();
}

const std::vector<LauncherWatch::Ancestor>& LauncherWatch::getAncestors() const {
    return _impl->ancestors;
}

bool LauncherWatch::isLauncherName(const std::string& name) {
    return contains(LAUNCHERS, name);
}

std::string LauncherWatch::getKillingLauncher(int pid) {
    const auto stat = pid > INIT ? ProcFs::readStat(pid) : std::nullopt;
    return stat && contains(KILLING_LAUNCHERS, stat->name) ? stat->name : std::string();
}
