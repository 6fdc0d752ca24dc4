#include "machine/LastWords.h"

#include "machine/Communicator.h"
#include "machine/Machine.h"

#include "kernel/Error.h"
#include "kernel/Properties.h"
#include "kernel/Server.h"
#include "kernel/SessionLocator.h"
#include "kernel/SignalHandler.h"
#include "platform/Io.h"
#include "platform/JobWatch.h"
#include "platform/Process.h"
#include "platform/Semaphore.h"
#include "platform/Signals.h"
#include "platform/Time.h"

#include <atomic>
#include <csignal>
#include <cstdlib>
#include <memory>
#include <system_error>
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
/// Not destroyed when the process exits in disorder: its thread may be at work.
std::atomic<JobWatch*> jobWatch{nullptr};

bool isForkedChild() {
    return owner != 0 && Platform::process().getPid() != owner;
}

std::string describeRank(std::size_t rank) {
    return Machine::isParallel() ? "Rank " + std::to_string(rank) : "The server";
}

void write(const std::string& text) {
    // Nobody is left to tell of a failure.
    static_cast<void>(Platform::io().write(originalError, text.data(), text.size()));
    if (!Platform::io().isSameFile(originalError, STANDARD_ERROR)) // moved to a file, say
        static_cast<void>(Platform::io().write(STANDARD_ERROR, text.data(), text.size()));
}

void notifyClients(const std::string& reason) {
    Properties properties;
    properties.set(Error::MESSAGE_TAG, reason);
    Server::getSingleton().notifyAbort(properties);
}

/// On a thread of its own and for a limited time: the thread that dies may hold a lock of the server's.
void tellClients(const std::string& reason) {
    constexpr double PATIENCE = 1.0; // [s]
    const auto told = std::make_shared<Semaphore>();
    try {
        std::thread([told, reason] {
            notifyClients(reason);
            told->post();
        }).detach();
    } catch (const std::system_error&) {
        return; // no thread to be had: the standard error stream has the words
    }
    static_cast<void>(told->wait(PATIENCE));
}

void pass(const std::string& reason) {
    if (Machine::isSerial() || Machine::isMaster())
        tellClients(reason);
    else
        JobWatch::tell(newsOfMaster, Machine::getPartitionId(), reason);
}

/// Another process of the job ends. Its own words stand on its standard error stream already.
void onEndOfRank(std::size_t rank, const std::string& reason) {
    constexpr double GRACE = 3.0; // [s] launchers end such a job by themselves, most of them
    const std::string text =
        describeRank(rank) +
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

/// The first of the exit functions: whatever stands behind it is for an end in order.
void onExit(int status, void*) {
    if (isForkedChild())
        std::_Exit(status);
    if (!armed)
        return;
    LastWords::say("exit(" + std::to_string(status) + ") was called");
    if (Machine::isParallel())
        Machine::abortFromAnywhere();
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
    SignalHandler::setReportDescriptor(duplicate);
}

void LastWords::install() {
    SignalHandler::setLastWordsCallback([](const std::string& reason) {
        if (isForkedChild())
            return;
        say(reason);
        SessionLocator::cleanup();
    });
    SignalHandler::announceEndSignals();
}

void LastWords::beginWork() {
    static const int registered = ::on_exit(&onExit, nullptr);
    static_cast<void>(
        registered); // without room for it an exit() ends the job in silence, as it would anyway
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

void LastWords::say(const std::string& reason) {
    if (spoken.exchange(true))
        return;
    write("\n" + describeRank(Machine::getPartitionId()) + " (process " +
          std::to_string(Platform::process().getPid()) + ") ends: " + reason + "\n");
    pass(reason);
}

void LastWords::sayIfUntimely(const std::string& reason) {
    if (armed)
        say(reason);
}

bool LastWords::isJobDying() {
    const JobWatch* const watch = jobWatch;
    return spoken || (watch != nullptr && watch->hasLost());
}

void LastWords::endForkedChild() {
    if (isForkedChild())
        std::_Exit(FAILURE);
}
