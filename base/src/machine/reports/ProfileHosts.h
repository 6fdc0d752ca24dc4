#pragma once

#include "machine/MachineExport.h"

#include <string>
#include <vector>

class Properties;

/// The parts "hosts" and "rankHost" of a profile: the hardware of the hosts and where the ranks may run. The
/// hosts stand in the order of their lowest ranks.
class ORVEX_MACHINE_EXPORT ProfileHosts {
public:
    /// For each rank the index of its host. Local.
    static std::vector<unsigned> listHostOfRank();
    /// Sets both parts on the serial or master process. Collective over the job, main thread.
    static void gather(Properties& document);
    /// One text for all hosts of `document` with more processes than cores; empty when there is none. Local.
    static std::string warnOfOverSubscription(const Properties& document);
};
