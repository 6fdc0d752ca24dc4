#pragma once

#include "machine/MachineExport.h"

#include <string>

/// Holders may check the floating-point status of the job. Only the friends can make one.
class AssertNoFpeAccessKey {
    AssertNoFpeAccessKey() {}
    friend class CommandController;
    friend class GlobalFloatingPointErrorTesting;
    friend class MachineTestAccess;
};

/// Turns a fault in the floating-point status flags of the calling thread into a record that the next check
/// of the job reports. The flags aren't looked at while the FPE-agnostic mode or an isolated context is
/// active, or when faults arrive as signals.
namespace GlobalFloatingPointExceptionStatus {

/// Records a pending fault under `context`, and clears it; a later record replaces an earlier one. A fault
/// without a context replaces none. Local. Main thread.
/// @param context  names the computation; null when that isn't known
ORVEX_MACHINE_EXPORT void TestAndSaveLocalContext(const char* context);
ORVEX_MACHINE_EXPORT void TestAndSaveLocalContext(const std::string& context);

/// Records a pending fault without a context, and then GlobalFloatingPointError::assertNoError(). Collective.
ORVEX_MACHINE_EXPORT void AssertNoException(AssertNoFpeAccessKey key);

} // namespace GlobalFloatingPointExceptionStatus
