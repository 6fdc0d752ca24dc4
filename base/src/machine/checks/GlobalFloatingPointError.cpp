#include "machine/GlobalFloatingPointError.h"

#include "machine/Communicator.h"
#include "machine/GlobalCondition.h"
#include "machine/GlobalFloatingPointExceptionStatus.h"
#include "machine/MachineGround.h"

#include "kernel/OrvexVersion.h"
#include "kernel/Raise.h"
#include "kernel/ThreadParallelContext.h"
#include "platform/FloatingPointErrorRecord.h"

#include <set>
#include <string>

namespace {

constexpr const char* UNEXPECTED_FAULT =
    "Unexpected FPE. If you see this message, please find the root cause that led to the FPE, assign to the "
    "appropriate group for mitigation, and add the HPC group as watchers for consultation.";

std::string describe(const std::set<std::string>& errors) {
    std::string message = "A floating point error has occurred. The following ";
    message += errors.size() == 1 ? "error has" : "errors have";
    message += " been logged:";
    if (errors.size() == 1) {
        message += "\n  " + *errors.begin();
    } else {
        unsigned number = 0;
        for (const std::string& error : errors)
            message += "\n" + std::to_string(++number) + ". " + error;
    }
    return message + "\nPlease check your usage and inputs.";
}

} // namespace

void GlobalFloatingPointError::assertNoError() {
    ORVEX_ASSERT_AS(
        !MachineGround::isSerialCritical(), "! _serialCriticalLock",
        "Cannot check global floating point error status in serial critical code. The status check must "
        "be called collectively on all processes.");
    ORVEX_ASSERT_AS(
        !ThreadParallelContext::_threadParallelContext, "!ThreadParallelContext::_threadParallelContext",
        "Cannot check global floating point error status from within a hybrid MPI thread context. The "
        "status check must be called collectively on all processes.");
    // Flags that a record may explain aren't unexpected.
    const std::string& record = FloatingPointErrorRecord::get();
    GlobalFloatingPointExceptionStatus::TestAndSaveLocalContext(
        OrvexVersion::isDevelopmentVersion() && record.empty() ? UNEXPECTED_FAULT : nullptr);

    if (!GlobalCondition(!record.empty(), GlobalCondition::ON_ANY))
        return;
    std::set<std::string> localErrors;
    if (!record.empty())
        localErrors.insert(record);
    FloatingPointErrorRecord::clear();

    std::set<std::string> errors;
    if (MachineGround::isParallel())
        MachineGround::globalCommunicator().allGather(localErrors, errors);
    else
        errors = localErrors;
    raise(FloatingPointError(describe(errors)));
}
