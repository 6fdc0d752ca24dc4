#include "kernel/IsolatedFpuContext.h"

namespace {

/// How many are alive on this thread.
constinit thread_local unsigned depth = 0;

} // namespace

IsolatedFpuContext::IsolatedFpuContext(bool keepTraps) {
    FpuHandling::saveEnvironment(FpuEnvironmentAccessKey(), _environment);
    if (!keepTraps)
        FpuHandling::disableTraps(FpuEnvironmentAccessKey(), FpuHandling::ALL);
    FpuHandling::clearFpeStatus(FpeStatusWriteAccessKey());
    ++depth;
}

IsolatedFpuContext::~IsolatedFpuContext() {
    --depth;
    FpuHandling::restoreEnvironment(FpuEnvironmentAccessKey(), _environment);
}

bool IsolatedFpuContext::isActive(FriendKey<FpuAccess>) {
    return depth != 0;
}
