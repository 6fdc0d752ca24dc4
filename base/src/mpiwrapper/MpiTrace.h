#pragma once

#include "mpiwrapper/MpiDriver.h"

/// The traced forms of a driver's functions: each calls its original and writes one line to the standard
/// error stream, with the arguments, the result, what it set, and its duration. The clock isn't traced.
namespace MpiTrace {

/// @param functions  complete; called by the traced forms from now on
/// @param rank       of this process, for the lines; -1 when it isn't known
MpiDriverFunctions getTraced(const MpiDriverFunctions& functions, int rank);

} // namespace MpiTrace
