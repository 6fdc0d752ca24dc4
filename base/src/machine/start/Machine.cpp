#include "machine/Machine.h"

#include "machine/Communicator.h"
#include "machine/GroundLocks.h"
#include "machine/MachineHost.h"
#include "machine/StandardStreamManager.h"
#include "machine/SystemMonitor.h"
#include "machine/Timer.h"
#include "machine/failures/LiveView.h"
#include "machine/failures/ParallelErrorHandler.h"
#include "machine/failures/RollCall.h"
#include "machine/failures/StuckWatch.h"
#include "machine/failures/TraceService.h"
#include "machine/files/ParallelConsoleBuf.h"
#include "machine/ground/MachineOptions.h"
#include "machine/hybrid/HostMeeting.h"

#include "kernel/AnalyticsEvent.h"
#include "kernel/AnalyticsManager.h"
#include "kernel/Raise.h"
#include "mpiwrapper/OxmMpi.h"
#include "platform/LauncherWatch.h"
#include "platform/Thread.h"
#include "platform/Time.h"

#include <iostream>
#include <utility>

Machine* Machine::_singleton = nullptr;

void Machine::OnExitObservable::attach(OnExitObserver& observer) {
    Subject::attach(observer);
}

void Machine::OnExitObservable::detach(OnExitObserver& observer) {
    Subject::detach(observer);
}

Machine& Machine::getSingleton() {
    if (!_singleton)
        _singleton = new Machine;
    return *_singleton;
}

Machine::Machine() {
    using Exemption = ParallelPerformanceCritical::TemporaryExemption;
    if (Exemption::verbose())
        _onExitObservable.attach(Exemption::getExitObserver());
}

Machine::~Machine() {
    // Destroying a communicator is collective: the stop steps alone do that.
    static_cast<void>(releaseCommunicators());
    if (_ground.host == _host.get())
        _ground.host = nullptr;
    if (_singleton == this)
        _singleton = nullptr;
}

Machine::ServerType Machine::getServerType() {
    return getSingleton()._serverType;
}

void Machine::setServerType(ServerType type) {
    getSingleton()._serverType = type;
}

std::wstring Machine::getPassToDesign() {
    return _options.passToDesign;
}

void Machine::setPassToDesign(std::wstring text) {
    _options.passToDesign = std::move(text);
}

bool Machine::isProxyServer() {
    return _options.proxyServer;
}

bool Machine::isProxySessionDaemon() {
    return _options.proxySessionDaemon;
}

bool Machine::bindThreads() {
    return _options.threadBinding;
}

bool Machine::enableThreadBindingVerbosity() {
    return _options.threadBindingVerbose;
}

int Machine::getIOVerbosityLevel() {
    return _options.ioVerbosity;
}

void Machine::setIOVerbosityLevel(int level) {
    _options.ioVerbosity = level;
}

bool Machine::isCpuBindingContentionTestEnabled() {
    return _options.bindingContentionTest;
}

void Machine::enableCpuBindingContentionTest(bool on) {
    _options.bindingContentionTest = on;
}

const std::string& Machine::getProcessFileName() const {
    return _options.processFileName;
}

const std::wstring& Machine::getTemporaryDirectory() const {
    return _options.temporaryDirectory;
}

std::wstring Machine::getJobManagerURL() const {
    return _options.jobManagerUrl;
}

int Machine::getTaskId() const {
    return _options.taskId;
}

bool Machine::isParallelIo() const {
    return _options.parallelIo;
}

void Machine::setParallelIo(bool on) {
    _options.parallelIo = on && isParallel();
}

bool Machine::isDesignStudy() const {
    return _options.designStudy;
}

bool Machine::isDesignManager() const {
    return _options.designManager;
}

std::string Machine::getTime() const {
    return Platform::time().getAscTime();
}

double Machine::wallTime() const {
    return isParallel() ? OXM_MPI_Wtime() : Platform::time().getTime();
}

StandardStreamManager& Machine::getStandardStreamManager() {
    ORVEX_ASSERT_AS(_standardStreamManager, "_standardStreamManager", "StandardStreamManager is NULL");
    return *_standardStreamManager;
}

bool Machine::isUsageManagerInitialized() const {
    return _usageManager && _usageManager->isInitialized();
}

void Machine::logUsageEvent(Analytics::Event& event) {
    if (_usageManager)
        _usageManager->logEvent(event);
}

void Machine::enableCommunicationTimer(bool on) {
    if (isSerial())
        return;
    Communicator& ranks = globalCommunicator();
    const bool already = ranks.isCommunicationTimerEnabled() == on;
    if (on)
        std::cout << (already ? "Communication timer is already turned on."
                              : "Turning on communication timer.");
    else
        std::cout << (already ? "Communication timer is already turned off."
                              : "Turning off communication timer.");
    std::cout << std::endl;
    ranks.enableCommunicationTimer(on);
}

bool Machine::communicationTimerEnabled() const {
    return isParallel() && globalCommunicator().isCommunicationTimerEnabled();
}

double Machine::getTotalCommunicationTime() const {
    return isSerial() ? 0.0 : globalCommunicator().getCommunicationTime();
}

void Machine::getCommunicationTimes(std::vector<double>& times) const {
    gatherOnMaster(getTotalCommunicationTime(), times);
}

void Machine::getElapsedTimes(std::vector<double>& times) const {
    gatherOnMaster(_timer->getWallTime(), times);
}

void Machine::getCpuTimes(std::vector<double>& times) const {
    gatherOnMaster(_timer->getCpuTime(), times);
}

void Machine::gatherOnMaster(double value, std::vector<double>& values) const {
    if (isSerial())
        values.assign(1, value);
    else
        globalCommunicator().gather(value, values, Communicator::masterRank());
}

void Machine::SignalRaisedObserver::update(Properties&) {
    if (Thread::isMain())
        liftLocks();
}
