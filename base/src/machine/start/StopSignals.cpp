#include "machine/start/StopSignals.h"

#include "machine/Machine.h"
#include "machine/start/LastWords.h"

#include "kernel/Server.h"
#include "kernel/SignalHandler.h"
#include "platform/LauncherWatch.h"
#include "platform/Signals.h"
#include "platform/Time.h"

#include <cstdlib>
#include <iostream>
#include <mutex>
#include <optional>
#include <string>

namespace {

/// Guards what follows against the thread that hears the signals.
std::mutex requestMutex;
bool isServing = false;
std::optional<double> requestTime; // [s]

[[noreturn]] void endAtOnce(int signal) {
    LastWords::say(Platform::Signals::getName(signal) + " again: the process ends at once");
    if (Machine::isSerialOrMaster())
        Machine::abortFromAnywhere();
    constexpr int EXIT_VALUE_OF_SIGNAL = 128;
    std::_Exit(EXIT_VALUE_OF_SIGNAL + signal);
}

} // namespace

void StopSignals::install() {
    SignalHandler::setStopCallback(&StopSignals::request);
}

void StopSignals::uninstall() {
    SignalHandler::setStopCallback({});
}

void StopSignals::setServing(bool serving) {
    const std::lock_guard lock(requestMutex);
    isServing = serving;
    if (isServing && requestTime)
        Server::getSingleton().stop();
}

void StopSignals::request(int signal, int sender) {
    if (LastWords::isJobDying())
        return; // the launcher ends a job that has lost a rank: nobody asks for a stop in order
    const std::string launcher = LauncherWatch::getKillingLauncher(sender);
    const bool isTeller = Machine::isSerialOrMaster();
    const std::lock_guard lock(requestMutex);
    const double now = Platform::time().getTime();
    if (launcher.empty() && requestTime && now - *requestTime > PATIENCE)
        endAtOnce(signal);
    if (!launcher.empty() && isTeller)
        LastWords::sayIfUntimely(launcher + " (process " + std::to_string(sender) + ") ends the job, by " +
                                 Platform::Signals::getName(signal) +
                                 ": it was asked to, or a rank on another host has died");
    if (requestTime)
        return;
    requestTime = now;
    if (launcher.empty() && isTeller)
        std::cerr << '\n' << Platform::Signals::getName(signal) << ": the server stops in order" << std::endl;
    if (isServing)
        Server::getSingleton().stop();
}
