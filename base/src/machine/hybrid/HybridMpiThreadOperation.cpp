#include "machine/HybridMpiThreadOperation.h"

#include "machine/MachineGround.h"
#include "machine/ThreadCount.h"
#include "machine/ThreadPolicyBase.h"
#include "machine/ground/MachineOptions.h"

HybridMpiThreadOperation::~HybridMpiThreadOperation() = default;

std::unique_ptr<AbstractThreadPolicy> HybridMpiThreadOperation::createThreadPolicy(unsigned nThreads,
                                                                                   bool bindThreads) {
    ThreadPolicyBase::Configuration configuration;
    if (MachineGround::getOptions().threadBindingVerbose)
        configuration.reportLibraries = ThreadCount::TBB; // else the user who asked would see nothing
    return std::make_unique<ThreadPolicyBase>(nThreads, bindThreads, configuration);
}
