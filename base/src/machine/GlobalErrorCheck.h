#pragma once

#include "kernel/Raise.h"
#include "machine/GlobalCondition.h"
#include "machine/MachineExport.h"

#include <string>

/// The test behind ORVEX_GLOBAL_CHECK.
class ORVEX_MACHINE_EXPORT GlobalErrorCheck {
public:
    /// Folds `condition` over the job. A development version with its checks on also proves that all ranks
    /// stand at the same check, told by the line; a release version sends no message for that. Collective
    /// over the global communicator in a parallel job. Main thread.
    /// @param file, line  the place of the check in the source
    /// @throw InternalError on the ranks that stand at another line than the master
    static bool holds(bool condition, GlobalCondition::ModeEnum mode, const char* file, int line);

private:
    static void assertSameContext(const std::string& file, int line);
};

/// Raises the error given behind the mode on all ranks when the folded condition is false. Condition and mode
/// are evaluated once; the error is built on failure only. Collective as GlobalErrorCheck::holds() is.
#define ORVEX_GLOBAL_CHECK(condition, mode, ...)                                                             \
    do {                                                                                                     \
        if (!GlobalErrorCheck::holds((condition), (mode), __FILE__, __LINE__)) [[unlikely]]                  \
            raise(__VA_ARGS__);                                                                              \
    } while (false)
