#pragma once

#include "machine/MachineExport.h"

#include <cstddef>

class Properties;

/// The part "messages" of a profile: the operations of the message layer summed over the ranks, and who
/// exchanged messages with whom.
class ORVEX_MACHINE_EXPORT ProfileMessages {
public:
    /// Above it the partners are those of hosts.
    static constexpr unsigned MAX_RANKS = 64;
    /// Above it nothing is told of partners.
    static constexpr std::size_t MAX_HOSTS = 256;

    /// The part as the serial or master process writes it; empty on the others. Collective over the job, main
    /// thread. The messages of this operation count unless the statistics are off meanwhile.
    /// @param isOn      whether this process counts its messages
    /// @param maxRanks  MAX_RANKS, or less for a test
    static Properties gather(bool isOn, unsigned maxRanks = MAX_RANKS);
};
