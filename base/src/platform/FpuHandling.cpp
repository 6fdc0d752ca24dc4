#include "platform/FpuHandling.h"

#include <utility>

namespace {

/// Each fault with its bit of the system and its name.
constexpr struct {
    FpuHandling::Fpe fpe;
    int system;
    const char* name;
} FAULTS[] = {{FpuHandling::DIVISION_BY_ZERO, FE_DIVBYZERO, "division by zero"},
              {FpuHandling::INVALID_OPERATION, FE_INVALID, "invalid operation"},
              {FpuHandling::OVERFLOW_FAULT, FE_OVERFLOW, "overflow"}};

int toSystem(unsigned int mask) {
    int result = 0;
    for (const auto& fault : FAULTS)
        result |= (mask & fault.fpe) != 0 ? fault.system : 0;
    return result;
}

unsigned int fromSystem(int mask) {
    unsigned int result = 0;
    for (const auto& fault : FAULTS)
        result |= (mask & fault.system) != 0 ? fault.fpe : 0u;
    return result;
}

unsigned int readStatus() {
    return fromSystem(std::fetestexcept(toSystem(FpuHandling::ALL)));
}

} // namespace

// The operations of the system's floating-point environment fail for masks only that the processor doesn't
// know; the three faults here are known to all.

bool FpuHandling::isFpeStatusClear(FpeStatusReadAccessKey) {
    return readStatus() == 0;
}

bool FpuHandling::testFpeStatus(FpeStatusReadAccessKey, unsigned int mask) {
    return (readStatus() & mask) != 0;
}

std::string FpuHandling::getFpeStatusAsString(FpeStatusReadAccessKey) {
    const unsigned int status = readStatus();
    if (status == 0)
        return "No floating-point exception";
    std::string text = "Floating-point exception";
    const char* separator = ": ";
    for (const auto& fault : FAULTS) {
        if ((status & fault.fpe) != 0)
            text.append(std::exchange(separator, ", ")).append(fault.name);
    }
    return text;
}

void FpuHandling::clearFpeStatus(FpeStatusWriteAccessKey) {
    std::feclearexcept(toSystem(ALL));
}

void FpuHandling::resetEnvironment(FpuEnvironmentAccessKey) {
    std::fesetenv(FE_DFL_ENV);
}

unsigned int FpuHandling::enableTraps(FpuEnvironmentAccessKey, unsigned int mask) {
    std::feclearexcept(toSystem(ALL));
    return fromSystem(::feenableexcept(toSystem(mask)));
}

unsigned int FpuHandling::disableTraps(FpuEnvironmentAccessKey, unsigned int mask) {
    return fromSystem(::fedisableexcept(toSystem(mask)));
}

void FpuHandling::saveEnvironment(FpuEnvironmentAccessKey, FpuEnvironment& environment) {
    std::fegetenv(&environment._environment);
}

void FpuHandling::restoreEnvironment(FpuEnvironmentAccessKey, const FpuEnvironment& environment) {
    std::fesetenv(&environment._environment);
}
