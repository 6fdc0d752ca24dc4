#include "machine/HybridMpiThreadOperation.h"

#include "machine/ThreadPolicyBase.h"

HybridMpiThreadOperation::~HybridMpiThreadOperation() = default;

std::unique_ptr<AbstractThreadPolicy> HybridMpiThreadOperation::createThreadPolicy(unsigned nThreads,
                                                                                   bool bindThreads) {
    return std::make_unique<ThreadPolicyBase>(nThreads, bindThreads);
}
