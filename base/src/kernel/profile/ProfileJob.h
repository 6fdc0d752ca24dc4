#pragma once

#include "kernel/KernelExport.h"
#include "kernel/profile/ProfileReader.h"
#include "kernel/profile/ProfileSnapshot.h"

#include <cstddef>
#include <string>
#include <vector>

/// The profiles that the ranks of one job left on this host, or keep here while they live. Local, any thread.
class ORVEX_KERNEL_EXPORT ProfileJob {
public:
    static constexpr double MAX_AGE = 7 * 86400.0; ///< [s]
    static constexpr std::size_t MAX_JOBS = 10;
    static constexpr std::size_t MAX_BYTES = std::size_t(32) << 20; ///< the files lie in memory

    /// The jobs of this user with a profile here, the latest activity first.
    /// @param ignored  gets, for each file that can't be read as a profile, why
    static std::vector<ProfileJob> find(std::vector<std::string>* ignored = nullptr,
                                        ProfileReader::Extent extent = ProfileReader::Extent::WHOLE);
    /// Removes the files of dead jobs that show no activity for `maxAge` seconds, and of all except the
    /// newest jobs: at most `maxJobs` and `maxBytes` stay. Files of this user that can't be read go by their
    /// age.
    /// @return how many files were removed
    static std::size_t removeOld(double maxAge = MAX_AGE, std::size_t maxJobs = MAX_JOBS,
                                 std::size_t maxBytes = MAX_BYTES);

    /// Whether `member` is a rank of this job, and none that is here already.
    bool takes(const ProfileSnapshot& member) const;
    void add(ProfileSnapshot member);
    /// In rank order.
    const std::vector<ProfileSnapshot>& getMembers() const { return _members; }
    /// Any of them tells the job's name, size and master.
    const ProfileSnapshot& getFirst() const { return _members.front(); }
    /// [s] since 1970.
    double getBegan() const;
    double getLastActivity() const;
    std::size_t count(ProfileSnapshot::Life life) const;
    /// All ranks that have a profile here are seen to have died.
    bool isDead() const { return count(ProfileSnapshot::Life::DIED) == _members.size(); }
    /// At least one of them has.
    bool hasDead() const { return count(ProfileSnapshot::Life::DIED) != 0; }
    /// Removes the files of the ranks that aren't seen to live.
    /// @return how many
    std::size_t remove() const;

private:
    std::vector<ProfileSnapshot> _members;
};
