#include "machine/Machine.h"

#include "machine/Communicator.h"
#include "machine/GroundLocks.h"
#include "machine/MachineHost.h"
#include "machine/StandardStreamManager.h"
#include "machine/Timer.h"
#include "machine/files/ParallelConsoleBuf.h"

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
bool Machine::_threaded = true;
bool Machine::_useInternalBinding = true;
CpuBindingPolicy Machine::_cpuBindingPolicy = BANDWIDTH_BINDING;
bool Machine::_cpuBindingContentionTest = true;
unsigned Machine::_threadBindingAttributes = 0;
unsigned Machine::_iodebug = 0;
bool Machine::_isProxyServer = false;
bool Machine::_isProxySessionDaemon = false;
std::wstring Machine::_executablePath;

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
    return getSingleton()._passToDesign;
}

void Machine::setPassToDesign(std::wstring text) {
    getSingleton()._passToDesign = std::move(text);
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
