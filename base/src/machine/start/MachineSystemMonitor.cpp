// The system monitor of the process: on, off, and its end.

#include "machine/Machine.h"

#include "machine/Communicator.h"
#include "machine/GlobalCondition.h"
#include "machine/SystemMonitor.h"
#include "machine/start/StopLimit.h"

#include "kernel/Error.h"
#include "kernel/Raise.h"
#include "platform/FileSystem.h"
#include "platform/Time.h"

#include <cerrno>
#include <cstdio>
#include <iostream>
#include <sstream>
#include <string>
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

/// A file of this job in the working directory of the master, which is there from the beginning: another
/// server that stops its monitor in the same second gets another name.
class ReservedFile {
public:
    /// Collective.
    ReservedFile() : _name(Machine::isSerialOrMaster() ? reserve() : std::string()) {
        if (Machine::isParallel())
            Machine::globalCommunicator().broadcast(_name, Communicator::masterRank());
    }
    ReservedFile(const ReservedFile&) = delete;
    ReservedFile& operator=(const ReservedFile&) = delete;
    /// Removes it when nobody has written to it.
    ~ReservedFile() {
        Platform::FileSystem& files = Platform::filesystem();
        const std::wstring path = files.fromSystem(_name);
        if (Machine::isSerialOrMaster() && files.getSize(path) == 0)
            files.deleteFile(path);
    }
    const std::string& getName() const { return _name; }

private:
    static std::string reserve() {
        constexpr int TRIES = 100;
        const std::string base = "memory-history-" + Platform::time().formatUtc("%Y%m%d%H%M%S");
        std::string name = base + ".csv";
        for (int i = 2; i <= TRIES; ++i) {
            if (std::FILE* const file = std::fopen(name.c_str(), "wxe")) {
                static_cast<void>(std::fclose(file));
                return name;
            }
            if (errno != EEXIST)
                break; // the export tells why
            name = base + '-' + std::to_string(i) + ".csv";
        }
        return name;
    }

    std::string _name;
};

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
    const ReservedFile file;
    _systemMonitor->exportHistoryData(file.getName());
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
