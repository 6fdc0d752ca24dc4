// The system monitor of the process: on, off, and its end.

#include "machine/Machine.h"

#include "machine/GlobalCondition.h"
#include "machine/SystemMonitor.h"
#include "machine/start/StopLimit.h"

#include "kernel/Error.h"
#include "kernel/Raise.h"
#include "platform/Time.h"

#include <iostream>
#include <sstream>
#include <system_error>

namespace {

/// [ms] Two samples are this time apart.
unsigned toYieldTime(float rate) {
    constexpr float SMALLEST = 0.001F; // [samples/s]
    constexpr float LARGEST = 1000.0F;
    if (!(rate >= SMALLEST && rate <= LARGEST)) {
        std::ostringstream text;
        text << "The sampling frequency must be 0.001 to 1000 samples a second, but it is " << rate;
        raise(InputError(text.str()));
    }
    return static_cast<unsigned>(1000.0 / static_cast<double>(rate));
}

/// @return false when the system has no thread left
bool tryToStart(SystemMonitor& monitor) {
    try {
        monitor.start();
        return true;
    } catch (const std::system_error&) {
        return false;
    }
}

} // namespace

bool Machine::hasSystemMonitor() {
    return getSingleton()._systemMonitor != nullptr;
}

SystemMonitor& Machine::getSystemMonitor() {
    ORVEX_ASSERT(hasSystemMonitor(), "The system monitor has not been enabled");
    return *_systemMonitor;
}

void Machine::enableSystemMonitor(bool enable, float rate) {
    if (enable)
        getSingleton().startSystemMonitor(rate);
    else if (hasSystemMonitor())
        getSingleton().stopSystemMonitor();
}

void Machine::startSystemMonitor(float rate) {
    // One that stands still has a history that couldn't be written: it goes on.
    if (_systemMonitor && _systemMonitor->running())
        return;
    const unsigned yieldTime = toYieldTime(rate);
    std::cout << "Starting system monitor" << std::endl;
    const bool isNew = !_systemMonitor;
    if (isNew)
        _systemMonitor = std::make_unique<SystemMonitor>(_onExitObservable);
    _systemMonitor->setYieldTime(yieldTime);
    const bool isStarted = tryToStart(*_systemMonitor);
    if (GlobalCondition(!isStarted, GlobalCondition::ON_ANY)) {
        _systemMonitor->stop();
        if (isNew)
            _systemMonitor.reset();
        raise(SystemError("Cannot start the system monitor: the system has no thread left"));
    }
    _systemMonitor->startRecording();
}

void Machine::stopSystemMonitor() {
    std::cout << "Stopping system monitor" << std::endl;
    _systemMonitor->stopRecording();
    _systemMonitor->stop();
    _systemMonitor->exportHistoryData("memory-history-" + Platform::time().formatUtc("%Y%m%d%H%M%S") +
                                      ".csv");
    _systemMonitor.reset();
}

void Machine::endSystemMonitor() {
    StopLimit::enter("the end of the system monitor");
    try {
        enableSystemMonitor(false, 50.0F);
    } catch (const RecoverableError& error) {
        if (isSerialOrMaster())
            std::cerr << error.what() << std::endl;
    }
    _systemMonitor.reset();
}
