#include "machine/AffinityRelaxer.h"

#include "machine/Affinity.h"
#include "machine/Communicator.h"
#include "machine/CpuTopology.h"
#include "machine/MachineHost.h"

#include "platform/Log.h"

namespace {

constexpr unsigned MASK_LENGTH = 60; ///< of a printed mask's description
constexpr const char* CONSTRUCTOR = "AffinityRelaxer::Impl::Impl";
constexpr const char* DESTRUCTOR = "AffinityRelaxer::Impl::~Impl";

OS::Log& getLog() {
    return OS::Log::instance("Default");
}

const CpuTopology& getTopology() {
    return MachineGround::getHost().getCpuTopology();
}

} // namespace

class AffinityRelaxer::Impl {
public:
    explicit Impl(MachineGround::ShmemScope scope);
    ~Impl();
    Impl(const Impl&) = delete;
    Impl& operator=(const Impl&) = delete;

private:
    AffinityMask _saved; ///< the binding that was found; empty in serial
};

AffinityRelaxer::Impl::Impl(MachineGround::ShmemScope scope) {
    if (MachineGround::isSerial()) {
        getLog().info(CONSTRUCTOR, "Affinity relaxer is disabled in serial mode.");
        return;
    }
    const CpuTopology& topology = getTopology();
    _saved = Affinity::getProcessAffinity(topology);
    getLog().debug(CONSTRUCTOR, "#LPUs = @0@, Process affinity mask = @1@", topology.getNumberLpus(),
                   topology.printAffinityMask(_saved, MASK_LENGTH));
    std::vector<unsigned> all;
    std::vector<unsigned> counts;
    MachineGround::sharedMemCommunicator(scope).allGatherVector(topology.getLpusFromMask(_saved), all,
                                                                counts);
    const AffinityMask relaxed = topology.getLpuMask(all);
    getLog().debug(CONSTRUCTOR, "Relaxed affinity mask = @0@",
                   topology.printAffinityMask(relaxed, MASK_LENGTH));
    if (Affinity::setProcessAffinity(topology, relaxed))
        getLog().info(CONSTRUCTOR, "Relaxed affinity mask applied successfully.");
    else
        getLog().error(CONSTRUCTOR, "Failed to apply relaxed affinity mask.");
}

AffinityRelaxer::Impl::~Impl() {
    if (MachineGround::isSerial()) {
        getLog().info(DESTRUCTOR,
                      "Affinity relaxer is disabled in serial mode, hence no affinity to restore.");
        return;
    }
    if (_saved.empty()) {
        getLog().warning(DESTRUCTOR, "The original process affinity mask is empty.");
        return;
    }
    const CpuTopology& topology = getTopology();
    const std::string text = topology.printAffinityMask(_saved, MASK_LENGTH);
    if (Affinity::setProcessAffinity(topology, _saved))
        getLog().info(DESTRUCTOR, "Successfully applied original affinity mask @0@.", text);
    else
        getLog().error(DESTRUCTOR, "Failed to restore original affinity mask @0@.", text);
}

AffinityRelaxer::AffinityRelaxer(MachineGround::ShmemScope scope, const Key&)
    : _impl(std::make_unique<Impl>(scope)) {}
AffinityRelaxer::~AffinityRelaxer() = default;
