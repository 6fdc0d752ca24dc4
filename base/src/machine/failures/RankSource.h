#pragma once

#include "machine/failures/RankSample.h"

#include <memory>
#include <vector>

class ProfileReader;

/// Reads what the ranks of this host do, from their profiles and from the system. None of them is asked or
/// interrupted. One thread at a time.
class ORVEX_MACHINE_EXPORT RankSource {
public:
    struct Process {
        unsigned rank = 0;
        int pid = 0;
    };

    explicit RankSource(const std::vector<Process>& processes);
    RankSource(const RankSource&) = delete;
    RankSource& operator=(const RankSource&) = delete;
    ~RankSource();

    /// In the order of the processes.
    std::vector<RankSample> read();

private:
    struct Source;
    void findProfiles();

    std::vector<Source> _sources;
    unsigned _looks = 0;
};
