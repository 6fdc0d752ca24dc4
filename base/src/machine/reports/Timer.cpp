#include "machine/Timer.h"

#include "machine/Communicator.h"
#include "machine/EventLoggerReporter.h"
#include "machine/MachineGround.h"
#include "machine/messages/MpiWallTimer.h"

#include "kernel/Raise.h"
#include "platform/Time.h"
#include "platform/WallTimer.h"

#include <iostream>
#include <utility>
#include <vector>

namespace {

Communicator* chooseCommunicator(Communicator* communicator) {
    if (!MachineGround::isParallel())
        return nullptr;
    return communicator ? communicator : &MachineGround::globalCommunicator();
}

std::unique_ptr<WallTimer> copyOf(const std::unique_ptr<WallTimer>& clock) {
    return clock ? clock->clone() : nullptr;
}

} // namespace

Timer::Timer(Communicator* communicator) : Timer(DEFAULT_WALL_TIMER, communicator) {}

Timer::Timer(WallTimerType type, Communicator* communicator)
    : _wallTimer(createWallTimer(type)), _communicator(chooseCommunicator(communicator)) {}

Timer::Timer(std::unique_ptr<WallTimer> wallClock, std::unique_ptr<WallTimer> processorClock,
             Communicator* communicator)
    : _wallTimer(std::move(wallClock)), _cpuTimer(std::move(processorClock)),
      _communicator(chooseCommunicator(communicator)) {}

Timer::Timer(const Timer& other)
    : _wallTimer(other._wallTimer->clone()), _wallTime(other._wallTime), _cpuStamp(other._cpuStamp),
      _cpuTimer(copyOf(other._cpuTimer)), _cpuTime(other._cpuTime), _cpuRunning(other._cpuRunning),
      _communicator(other._communicator) {}

Timer& Timer::operator=(const Timer& other) {
    if (this == &other)
        return *this;
    _wallTimer = other._wallTimer->clone();
    _wallTime = other._wallTime;
    _cpuStamp = other._cpuStamp;
    _cpuTimer = copyOf(other._cpuTimer);
    _cpuTime = other._cpuTime;
    _cpuRunning = other._cpuRunning;
    _communicator = other._communicator;
    return *this;
}

Timer::~Timer() = default;

std::unique_ptr<WallTimer> Timer::createWallTimer(WallTimerType type) {
    switch (type) {
    case DEFAULT_WALL_TIMER:
        if (MachineGround::isParallel())
            return std::make_unique<MpiCore::MpiWallTimer>();
        return Platform::time().createWallTimer();
    case SYSTEM_WALL_TIMER:
        return Platform::time().createWallTimer();
    }
    std::cout << "Unsupported wall timer type.. reverting to system wall timer." << std::endl;
    return Platform::time().createWallTimer();
}

void Timer::start() {
    startWallTimer();
    startCpuTimer();
}

void Timer::startWallTimer() {
    _wallTimer->start();
}

void Timer::startCpuTimer() {
    if (_cpuTimer)
        _cpuTimer->start();
    else
        Platform::time().stampProcessorTime(_cpuStamp);
    _cpuRunning = true;
}

void Timer::stop() {
    stopCpuTimer();
    stopWallTimer();
}

void Timer::stopCpuTimer() {
    if (!_cpuRunning)
        return;
    _cpuTime += getElapsedCpuTime();
    _cpuRunning = false;
}

void Timer::stopWallTimer() {
    if (!_wallTimer->isRunning())
        return;
    _wallTime += getElapsedWallTime();
    _wallTimer->stop();
}

void Timer::reset() {
    resetCpuTimer();
    resetWallTimer();
}

void Timer::resetCpuTimer() {
    _cpuTime = 0.0;
    _cpuRunning = false;
}

void Timer::resetWallTimer() {
    if (_wallTimer->isRunning())
        _wallTimer->stop();
    _wallTime = 0.0;
}

void Timer::setTimes(double cpuTime, double wallTime) {
    _cpuTime = cpuTime;
    _wallTime = wallTime;
}

bool Timer::wallTimerRunning() const {
    return _wallTimer->isRunning();
}

double Timer::getElapsedWallTime() const {
    double dt = 0.0;
    ORVEX_ASSERT_AS(_wallTimer->getElapsedTime(dt) == 0, "_wallTimer->getElapsedTime(dt) == 0",
                    "WallTimer error");
    return dt;
}

double Timer::getElapsedCpuTime() const {
    if (!_cpuTimer)
        return Platform::time().getElapsedProcessorTime(_cpuStamp);
    double dt = 0.0;
    _cpuTimer->getElapsedTime(dt);
    return dt;
}

double Timer::getWallTime() const {
    return _wallTimer->isRunning() ? _wallTime + getElapsedWallTime() : _wallTime;
}

double Timer::getCpuTime() const {
    return _cpuRunning ? _cpuTime + getElapsedCpuTime() : _cpuTime;
}

double Timer::getMaximumWallTime() const {
    return getMaximum(getWallTime());
}
double Timer::getMaximumCpuTime() const {
    return getMaximum(getCpuTime());
}
double Timer::getMinimumWallTime() const {
    return getMinimum(getWallTime());
}
double Timer::getMinimumCpuTime() const {
    return getMinimum(getCpuTime());
}
double Timer::getAccumulatedCpuTime() const {
    return getSum(getCpuTime());
}
double Timer::getAverageWallTime() const {
    return getAverage(getWallTime());
}
double Timer::getAverageCpuTime() const {
    return getAverage(getCpuTime());
}
double Timer::getStandardDeviationWallTime() const {
    return getStandardDeviation(getWallTime());
}
double Timer::getStandardDeviationCpuTime() const {
    return getStandardDeviation(getCpuTime());
}

Communicator& Timer::checkCommunicator() const {
    ORVEX_ASSERT_AS(_communicator, "_communicator", "Invalid Communicator!");
    return *_communicator;
}

double Timer::getMaximum(double value) const {
    if (MachineGround::isParallel())
        checkCommunicator().allReduce(value, Communicator::MAX);
    return value;
}

double Timer::getMinimum(double value) const {
    if (MachineGround::isParallel())
        checkCommunicator().allReduce(value, Communicator::MIN);
    return value;
}

double Timer::getSum(double value) const {
    if (MachineGround::isParallel())
        checkCommunicator().allReduce(value, Communicator::SUM);
    return value;
}

double Timer::getAverage(double value) const {
    return MachineGround::isParallel() ? getSum(value) / MachineGround::nProcesses() : value;
}

double Timer::getStandardDeviation(double value) const {
    if (!MachineGround::isParallel())
        return 0.0;
    Communicator& communicator = checkCommunicator();
    std::vector<double> values;
    communicator.gather(value, values, Communicator::_master);
    return EventLoggerReporter::getStandardDeviation(values);
}
