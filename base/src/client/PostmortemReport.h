#pragma once

#include "kernel/profile/ProfileJob.h"

#include <optional>
#include <string>

class Properties;

/// Tells what the ranks of a job did last, by the profiles that they left on this host.
class PostmortemReport {
public:
    explicit PostmortemReport(const ProfileJob& job) : _job(job) {}

    /// For people, on one screen: ranks that stood alike in groups, then where the time went.
    std::string getText() const;
    /// One rank in full. None when it left no profile here.
    std::optional<std::string> describeRank(unsigned rank) const;
    /// This job's row in a list of jobs.
    Properties getSummary() const;
    /// A point in time, in the zone of this host.
    static std::string describeTime(double secondsSinceEpoch);
    /// The summary, and all that the profiles hold.
    Properties toProperties() const;

private:
    const ProfileJob& _job;
};
