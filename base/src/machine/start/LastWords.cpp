#include "machine/start/LastWords.h"

#include "machine/Communicator.h"
#include "machine/Machine.h"

#include "kernel/Error.h"
#include "kernel/Properties.h"
#include "kernel/ReportStream.h"
#include "kernel/Server.h"
#include "kernel/SignalHandler.h"
#include "kernel/server/SessionLocator.h"
#include "platform/Io.h"
#include "platform/JobWatch.h"
#include "platform/Process.h"
#include "platform/Semaphore.h"
#include "platform/Signals.h"
#include "platform/StringHelper.h"
#include "platform/Time.h"

#include <atomic>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <thread>
#include <vector>

namespace {

constexpr int STANDARD_ERROR = 2;
constexpr int FAILURE = 1;

int originalError = STANDARD_ERROR;
int owner = 0; ///< the process that prepared
std::atomic<bool> spoken{false};
std::atomic<bool> armed{false};
std::atomic<int> newsOfMaster{-1};
/// Not destroyed when the process exits in the middle of its work: its thread may be running.
std::atomic<JobWatch*> jobWatch{nullptr};
/// The reason for the end of this process. Static, as everything that writes it: the heap may have failed.
char reasonText[1024];

bool isForkedChild() {
    return owner != 0 && Platform::process().getPid() != owner;
}

void write(std::string_view text) {
    // Nobody is left to tell of a failure.
    static_cast<void>(Platform::io().write(originalError, text.data(), text.size()));
    if (!Platform::io().isSameFile(originalError, STANDARD_ERROR)) // for example moved to a file
        static_cast<void>(Platform::io().write(STANDARD_ERROR, text.data(), text.size()));
}

void writeReason() {
    char line[sizeof reasonText + 100];
    const int pid = Platform::process().getPid();
    const int length =
        Machine::isParallel()
            ? std::snprintf(line, sizeof line, "\nRank %u (process %d) ends: %s\n", Machine::getPartitionId(),
                            pid, reasonText)
            : std::snprintf(line, sizeof line, "\nThe server (process %d) ends: %s\n", pid, reasonText);
    write({line, static_cast<std::size_t>(length)}); // it has room for all of it
}

void notifyClients(const std::string& reason) {
    Properties properties;
    properties.set(Error::MESSAGE_TAG, StringHelper::toValidUtf8(reason)); // it may be anybody's
    Server::getSingleton().notifyAbort(properties);
}

/// Speaks to the clients for a thread that dies: that one may hold a lock of the server's, or have broken its
/// part of the heap. Made before it is needed, and never destroyed.
class Speaker {
public:
    /// @throw std::system_error when the system has no thread left
    Speaker() {
        std::thread([this] { run(); }).detach();
    }
    /// Returns when it is said, or within a limited time. Once.
    void speak() {
        constexpr double PATIENCE = 1.0; // [s]
        _asked.post();
        static_cast<void>(_told.wait(PATIENCE));
    }

private:
    void run() {
        _asked.wait();
        notifyClients(reasonText);
        SessionLocator::cleanup();
        _told.post();
    }

    Semaphore _asked;
    Semaphore _told;
};
/// On the serial or master process.
std::atomic<Speaker*> speaker{nullptr};

/// Another process of the job ends. It has written its own words on its standard error stream already.
void onEndOfRank(std::size_t rank, const std::string& reason) {
    constexpr double GRACE = 3.0; // [s] launchers end such a job by themselves, most of them
    const std::string text =
        "Rank " + std::to_string(rank) +
        (reason.empty() ? " has ended without a word (killed, or out of memory)" : ": " + reason);
    if (!spoken.exchange(true)) {
        notifyClients(text); // first: some launchers kill at once
        if (reason.empty())
            write("\n" + text + "\n");
        SessionLocator::cleanup();
    }
    Platform::time().sleep(GRACE);
    Machine::abortFromAnywhere();
}

/// The process leaves by a function of the C library in the midst of its work.
void leaveUntimely(int status, const char* function) {
    if (isForkedChild())
        std::_Exit(status);
    if (!armed)
        return;
    LastWords::say(std::string(function) + " was called");
    if (Machine::isParallel())
        Machine::abortFromAnywhere();
    if (status == 0) { // a server that was torn down hasn't succeeded
        std::fflush(nullptr);
        std::_Exit(FAILURE);
    }
}

/// The first of the exit functions: all others are for an end in order.
void onExit(int status, void*) {
    leaveUntimely(status, ("exit(" + std::to_string(status) + ")").c_str());
}

/// The system doesn't tell the status.
void onQuickExit() {
    leaveUntimely(0, "quick_exit()");
}

} // namespace

void LastWords::prepare() {
    owner = Platform::process().getPid();
    for (const int signal : {SIGPIPE, SIGXFSZ}) // the start prints, and a reader may be gone by then
        Platform::signals().ignore(signal);
    const int duplicate = Platform::io().duplicate(STANDARD_ERROR);
    if (duplicate < 0)
        return; // the stream itself serves as long as it leads there
    originalError = duplicate;
    ReportStream::setDescriptor(duplicate);
}

void LastWords::install() {
    SignalHandler::setLastWordsCallback([](std::string_view reason) {
        if (!isForkedChild())
            say(reason);
    });
    SignalHandler::announceEndSignals();
}

void LastWords::beginWork() {
    // Without room for them such an end comes in silence, as it would anyway.
    static const int registered = ::on_exit(&onExit, nullptr) + std::at_quick_exit(&onQuickExit);
    static_cast<void>(registered);
    if (Machine::isSerialOrMaster() && speaker == nullptr)
        speaker = new Speaker;
    if (Machine::isParallel()) {
        Communicator& ranks = Machine::globalCommunicator();
        auto watch = Machine::isMaster() ? std::make_unique<JobWatch>(&onEndOfRank) : nullptr;
        std::string address = watch ? watch->getAddress() : std::string();
        ranks.broadcast(address, Communicator::masterRank());
        newsOfMaster = watch ? -1 : JobWatch::openNews(address);
        std::vector<int> pids;
        ranks.gather(newsOfMaster < 0 ? 0 : Platform::process().getPid(), pids, Communicator::masterRank());
        if (watch) {
            watch->start(pids);
            jobWatch = watch.release();
        }
    }
    armed = true;
}

void LastWords::endWork() {
    armed = false;
    delete jobWatch.exchange(nullptr);
    if (const int descriptor = newsOfMaster.exchange(-1); descriptor >= 0)
        static_cast<void>(Platform::io().close(descriptor));
}

void LastWords::disarm() {
    armed = false;
}

void LastWords::say(std::string_view reason) {
    if (spoken.exchange(true))
        return;
    reasonText[reason.copy(reasonText, sizeof reasonText - 1)] = '\0';
    writeReason();
    if (Speaker* const own = speaker) {
        own->speak();
        return;
    }
    constexpr double GRACE = 0.3; // [s] some launchers kill the master as soon as this process is gone
    JobWatch::tell(newsOfMaster, Machine::getPartitionId(), reasonText);
    Platform::time().sleep(GRACE);
}

void LastWords::sayIfUntimely(std::string_view reason) {
    if (armed)
        say(reason);
}

bool LastWords::isJobDying() {
    const JobWatch* const watch = jobWatch;
    return spoken || (watch != nullptr && watch->hasLost());
}

void LastWords::endForkedChild(const std::string& reason) {
    if (!isForkedChild())
        return;
    write("\nThe process " + std::to_string(Platform::process().getPid()) + ", forked from the server " +
          std::to_string(owner) + ", ends: " + reason + "\n");
    std::_Exit(FAILURE);
}
