#pragma once

// The guards that lock messaging out of a region, as solvers name them: Machine::SerialCritical and
// Machine::ParallelPerformanceCritical.

#include "machine/GroundLocks.h"
#include "machine/Machine.h"
