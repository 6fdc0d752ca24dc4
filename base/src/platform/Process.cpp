#include "platform/Process.h"

#include "platform/ChildKeeper.h"
#include "platform/Descriptor.h"
#include "platform/Io.h"
#include "platform/Pipe.h"
#include "platform/ProcFs.h"
#include "platform/ProcessHandleImpl.h"
#include "platform/StringHelper.h"
#include "platform/Time.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <dirent.h>
#include <fcntl.h>
#include <map>
#include <sched.h>
#include <spawn.h>
#include <system_error>
#include <unistd.h>

namespace Platform {

namespace {

constexpr int NOT_STARTED = 127; // as shells tell it
constexpr int TIME_IS_UP = 124;  // as timeout(1) tells it
constexpr double GRACE = 2.0;    // [s] between the request to end and the end by force

/// The arguments of posix_spawn, freed at the end of the scope.
class SpawnPlan {
public:
    SpawnPlan() {
        check(::posix_spawn_file_actions_init(&_actions));
        check(::posix_spawnattr_init(&_attributes));
    }
    SpawnPlan(const SpawnPlan&) = delete;
    SpawnPlan& operator=(const SpawnPlan&) = delete;
    ~SpawnPlan() {
        ::posix_spawnattr_destroy(&_attributes);
        ::posix_spawn_file_actions_destroy(&_actions);
    }

    /// `descriptor` becomes `target` in the child.
    void give(int descriptor, int target) {
        check(::posix_spawn_file_actions_adddup2(&_actions, descriptor, target));
    }
    void giveNullInput() {
        check(::posix_spawn_file_actions_addopen(&_actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0));
    }
    void enter(const std::string& directory) {
        check(::posix_spawn_file_actions_addchdir_np(&_actions, directory.c_str()));
    }
    void finish(bool ownGroup) {
        check(::posix_spawn_file_actions_addclosefrom_np(&_actions, STDERR_FILENO + 1));
        sigset_t none;
        sigset_t all;
        ::sigemptyset(&none);
        ::sigfillset(&all);
        check(::posix_spawnattr_setsigmask(&_attributes, &none));
        check(::posix_spawnattr_setsigdefault(&_attributes, &all));
        int flags = POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF;
        if (ownGroup) {
            flags |= POSIX_SPAWN_SETPGROUP;
            check(::posix_spawnattr_setpgroup(&_attributes, 0));
        }
        check(::posix_spawnattr_setflags(&_attributes, static_cast<short>(flags)));
    }
    /// @return the pid @throw std::system_error
    int spawn(const std::vector<std::string>& words, const std::vector<std::string>& environment) {
        std::vector<char*> argv = toPointers(words);
        std::vector<char*> envp = toPointers(environment);
        pid_t pid = -1;
        const int error = ::posix_spawnp(&pid, argv[0], &_actions, &_attributes, argv.data(), envp.data());
        if (error != 0)
            throw std::system_error(error, std::generic_category(), "Couldn't start " + words[0]);
        return pid;
    }

private:
    static void check(int error) {
        if (error != 0)
            throw std::system_error(error, std::generic_category(), "Preparing a child process");
    }
    /// The system's interface takes the words as if it would change them, which it doesn't.
    static std::vector<char*> toPointers(const std::vector<std::string>& texts) {
        std::vector<char*> pointers;
        pointers.reserve(texts.size() + 1);
        for (const std::string& text : texts)
            pointers.push_back(const_cast<char*>(text.c_str()));
        pointers.push_back(nullptr);
        return pointers;
    }

    posix_spawn_file_actions_t _actions;
    posix_spawnattr_t _attributes;
};

/// Our environment with `changes` on top.
std::vector<std::string> mergeEnvironment(const std::vector<std::pair<std::string, std::string>>& changes) {
    std::map<std::string, std::string> values;
    for (char** entry = environ; entry != nullptr && *entry != nullptr; ++entry) {
        const std::string text = *entry;
        const std::size_t equals = text.find('=');
        if (equals != std::string::npos)
            values[text.substr(0, equals)] = text.substr(equals + 1);
    }
    for (const auto& [name, value] : changes)
        values[name] = value;
    std::vector<std::string> result;
    result.reserve(values.size());
    for (const auto& [name, value] : values)
        result.emplace_back(name).append("=").append(value);
    return result;
}

std::vector<std::string> toWords(const std::vector<std::wstring>& command) {
    if (command.empty() || command.front().empty())
        throw std::system_error(EINVAL, std::generic_category(), "A command needs a program");
    std::vector<std::string> words;
    words.reserve(command.size());
    for (const std::wstring& word : command) {
        if (word.find(L'\0') != std::wstring::npos)
            throw std::system_error(EINVAL, std::generic_category(), "A word of a command holds a zero");
        words.push_back(StringHelper::toString(word));
    }
    return words;
}

using HandleImpl = OS::Process::ProcessHandle::Impl;

std::unique_ptr<HandleImpl> launch(const std::vector<std::wstring>& command,
                                   const Process::StartOptions& options) {
    const std::vector<std::string> words = toWords(command);
    auto impl = std::make_unique<HandleImpl>();
    SpawnPlan plan;
    if (options.pipeInput) {
        impl->input = std::make_unique<Pipe>();
        plan.give(impl->input->getReadDescriptor(), STDIN_FILENO);
    } else {
        plan.giveNullInput();
    }
    if (options.pipeOutput) {
        impl->output = std::make_unique<Pipe>();
        plan.give(impl->output->getWriteDescriptor(), STDOUT_FILENO);
        if (options.joinErrorToOutput)
            plan.give(impl->output->getWriteDescriptor(), STDERR_FILENO);
    } else if (options.joinErrorToOutput) {
        plan.give(STDOUT_FILENO, STDERR_FILENO);
    }
    if (!options.directory.empty())
        plan.enter(StringHelper::toBytes(options.directory));
    plan.finish(options.ownGroup);
    impl->ownGroup = options.ownGroup;
    impl->pid = plan.spawn(words, mergeEnvironment(options.environment));
    if (impl->input)
        impl->input->closeReadEnd();
    if (impl->output)
        impl->output->closeWriteEnd();
    return impl;
}

/// Reads lines until one holds `expected`.
class ExpectedLine {
public:
    explicit ExpectedLine(const std::string& expected) : _expected(expected) {}

    /// @return true when the line has come, whole
    bool take(const char* data, std::size_t count, std::string& captured) {
        constexpr std::size_t MOST = std::size_t{1} << 20; // a marker comes early; the rest is talk
        captured.append(data, std::min(count, MOST - std::min(MOST, captured.size())));
        for (;;) {
            const std::size_t end = captured.find('\n', _line);
            if (end == std::string::npos)
                return captured.size() >= MOST;
            const std::size_t found = captured.find(_expected, _line);
            if (found != std::string::npos && found + _expected.size() <= end) {
                captured.resize(end + 1);
                return true;
            }
            _line = end + 1;
        }
    }

private:
    const std::string& _expected;
    std::size_t _line = 0; ///< where the line begins that is at work
};

/// A zombie, or on its way out of the process list.
bool isDead(const ProcFs::Stat& stat) {
    return stat.state == 'Z' || stat.state == 'X';
}

} // namespace

int Process::getPid() const {
    return ::getpid();
}

std::vector<int> Process::getPids(const std::string& executableName) const {
    constexpr std::size_t NAME_LENGTH = 15;
    std::vector<int> pids;
    const std::unique_ptr<DIR, int (*)(DIR*)> processes(::opendir("/proc"), ::closedir);
    if (!processes || executableName.empty())
        return pids;
    while (const dirent* entry = ::readdir(processes.get())) {
        const std::string number = entry->d_name;
        if (number.find_first_not_of("0123456789") != std::string::npos)
            continue;
        const int pid = std::atoi(number.c_str());
        const std::string path = ProcFs::readExecutable(number);
        if (!path.empty()) {
            if (path.substr(path.rfind('/') + 1) == executableName)
                pids.push_back(pid);
        } else if (errno == EACCES || errno == EPERM) {
            const auto stat = ProcFs::readStat(pid);
            // Dead ones of this user have no executable any more; those of others only tell it by their
            // state.
            if (stat && !isDead(*stat) && stat->name == executableName.substr(0, NAME_LENGTH))
                pids.push_back(pid);
        }
    }
    std::sort(pids.begin(), pids.end());
    return pids;
}

std::vector<unsigned> Process::getProcessors() const {
    constexpr std::size_t MOST = std::size_t{1} << 20;
    for (std::size_t count = CPU_SETSIZE; count <= MOST; count *= 2) { // too small a set is refused
        const std::unique_ptr<cpu_set_t, void (*)(cpu_set_t*)> set(
            CPU_ALLOC(count), [](cpu_set_t* memory) { CPU_FREE(memory); });
        const std::size_t size = CPU_ALLOC_SIZE(count);
        if (!set || ::sched_getaffinity(0, size, set.get()) != 0)
            continue;
        std::vector<unsigned> processors;
        for (std::size_t number = 0; number < count; ++number)
            if (CPU_ISSET_S(number, size, set.get()))
                processors.push_back(static_cast<unsigned>(number));
        return processors;
    }
    return {};
}

bool Process::isAlive(int pid) const {
    const auto stat = pid > 0 ? ProcFs::readStat(pid) : std::nullopt;
    return stat && !isDead(*stat);
}

unsigned long long Process::getStartStamp(int pid) const {
    const auto stat = pid > 0 ? ProcFs::readStat(pid) : std::nullopt;
    return stat ? stat->startStamp : 0;
}

unsigned long long Process::getPidNamespace() const {
    if (ProcFs::readLink("/proc/self") != std::to_string(::getpid()))
        return 0;
    const std::string name = ProcFs::readLink("/proc/self/ns/pid"); // "pid:[4026531836]"
    const std::size_t number = name.find('[') + 1;                  // 0 when there is none
    return number > 0 ? std::strtoull(name.c_str() + number, nullptr, 10) : 0;
}

bool Process::terminate(int pid) const {
    return pid > 0 && ::kill(pid, SIGTERM) == 0;
}

bool Process::kill(int pid) const {
    return pid > 0 && ::kill(pid, SIGKILL) == 0;
}

std::unique_ptr<OS::Process::ProcessHandle> Process::start(const std::vector<std::wstring>& command,
                                                           const StartOptions& options) {
    return std::make_unique<OS::Process::ProcessHandle>(launch(command, options));
}

std::unique_ptr<OS::Process::ProcessHandle> Process::startAndExpect(const std::vector<std::wstring>& command,
                                                                    const std::string& expected,
                                                                    std::string& captured, bool verbose,
                                                                    double timeLimit) {
    captured.clear();
    std::unique_ptr<HandleImpl> child;
    try {
        child = launch(command, StartOptions{});
    } catch (const std::system_error& error) {
        captured = std::string(error.what()) + "\n";
        return nullptr;
    }
    Pipe& output = *child->output;
    ExpectedLine line(expected);
    const double end = time().getTime() + timeLimit;
    char buffer[4096];
    for (;;) {
        const int n = output.read(buffer, sizeof buffer,
                                  timeLimit < 0.0 ? -1.0 : std::max(0.0, end - time().getTime()));
        if (n < 0)
            break;
        if (n > 0 && line.take(buffer, static_cast<std::size_t>(n), captured))
            break;
    }
    ChildKeeper::drain(Descriptor(io().duplicate(output.getReadDescriptor())), verbose);
    child->output.reset(); // read by the keeper from now on
    return std::make_unique<OS::Process::ProcessHandle>(std::move(child));
}

int Process::run(const std::vector<std::wstring>& command, double timeLimit) {
    StartOptions options;
    options.pipeOutput = false;
    options.joinErrorToOutput = false;
    options.ownGroup = timeLimit >= 0.0; // so that all it started ends with it when its time is up
    try {
        const auto handle = start(command, options);
        if (const auto status = handle->wait(timeLimit))
            return *status;
        handle->terminate(GRACE);
        return TIME_IS_UP;
    } catch (const std::system_error& error) {
        const std::string text = std::string(error.what()) + "\n";
        io().write(STDERR_FILENO, text.data(), text.size()); // as a shell would tell it
        return NOT_STARTED;
    }
}

Process::RunResult Process::runCaptured(const std::vector<std::wstring>& command, double timeLimit,
                                        std::size_t maxOutput) {
    constexpr double SLICE = 0.1; // [s] after which a look is due whether the child still runs
    StartOptions options;
    options.ownGroup = true;
    const auto handle = start(command, options);
    Pipe& output = *handle->getOutput();
    RunResult result;
    const double end = time().getTime() + timeLimit;
    char buffer[1 << 14];
    for (bool open = true; open;) {
        const double left = timeLimit < 0.0 ? SLICE : end - time().getTime();
        const int n = output.read(buffer, sizeof buffer, std::clamp(left, 0.0, SLICE));
        if (n > 0) {
            const std::size_t count = std::min(static_cast<std::size_t>(n), maxOutput - result.output.size());
            result.output.append(buffer, count);
            result.outputCut = result.outputCut || count < static_cast<std::size_t>(n);
        }
        // Something that the child left behind may hold its output open: its own end counts, and what it
        // printed.
        open = n >= 0 || (n == Pipe::TIMED_OUT && handle->isAlive());
        if (open && left <= 0.0)
            break;
    }
    const double left = end - time().getTime();
    result.exitStatus = handle->wait(timeLimit < 0.0 ? -1.0 : std::max(0.0, left));
    if (!result.exitStatus)
        handle->terminate(GRACE);
    return result;
}

Process& process() {
    static Process service;
    return service;
}

} // namespace Platform
