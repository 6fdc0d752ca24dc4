#pragma once

#include "machine/MachineExport.h"

#include <cstdint>

/// Functions for the end of the process, and the answer to whether that end has come.
///
/// Used during load and start-up, by one thread.
class ORVEX_MACHINE_EXPORT AtExitRegister {
public:
    /// The number that every C runtime grants. Only functions registered here count.
    static constexpr std::uint32_t maxRegistrations = 32;

    /// Has `f` called at the exit of the process, in reverse order of registration.
    /// @throw InternalError when maxRegistrations functions are registered already, or the C runtime refuses
    static void registerFunction(void (*f)());

    static void setExiting() { _isExiting = true; }
    /// Turns true at the very end of the exit: the library registers setExiting() before anything else.
    static bool isExiting() { return _isExiting; }

private:
    static constinit std::uint32_t _nRegistered;
    static constinit bool _isExiting;
};
