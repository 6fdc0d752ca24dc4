#pragma once

#include "machine/MachineExport.h"
#include "machine/reports/CommandMeter.h"

class Properties;

/// The part "spans" of a profile: what the ranks did in commands, for the efficiencies of the job.
class ORVEX_MACHINE_EXPORT ProfileSpans {
public:
    /// The part as the serial or master process writes it; empty on the others. Collective over the job, main
    /// thread.
    /// @param total   of the commands of this rank that are over
    /// @param memory  [bytes] resident now
    static Properties gather(const CommandMeter::Cost& total, double memory);
};
