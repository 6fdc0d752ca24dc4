#pragma once

#include "machine/MachineExport.h"

#include <string>
#include <vector>

/// The frames of a stack that tell a user where a rank stands: those of solvers and commands.
namespace FrameNames {

struct Frame {
    std::string function; ///< without arguments, for example "HeatConduction::sweep"
    std::string place;    ///< for example "HeatConduction.cpp:120"; empty when it isn't known

    /// As in "HeatConduction::sweep (HeatConduction.cpp:120)".
    ORVEX_MACHINE_EXPORT std::string describe() const;
};

/// Leaves out the message layer and the libraries below it, and what calls the command. When nothing is left,
/// all frames that have a name, from the operation of the message layer on.
/// @param stack  as Platform::StackTracer::resolve() gives it
ORVEX_MACHINE_EXPORT std::vector<Frame> pick(const std::vector<std::string>& stack);

} // namespace FrameNames
