#include "kernel/profile/ProfileJob.h"

#include "kernel/profile/ProfileFile.h"
#include "kernel/profile/ProfileLayout.h"

#include "platform/FileSystem.h"
#include "platform/StringHelper.h"
#include "platform/Time.h"

#include <algorithm>
#include <cmath>
#include <optional>

namespace {

constexpr double START_TIME = 600.0; ///< [s] within which all ranks of a job begin

using Life = ProfileSnapshot::Life;

/// The files in the folders.
struct Found {
    std::vector<ProfileSnapshot> snapshots = {};
    std::vector<std::string> unreadable = {}; ///< paths
    std::vector<std::string> reasons = {};
};

Found readAll(ProfileReader::Extent extent) {
    Found found;
    for (const std::string& path : ProfileFile::find()) {
        std::string reason;
        if (auto snapshot = ProfileReader::readFile(path, reason, extent))
            found.snapshots.push_back(std::move(*snapshot));
        else if (Platform::filesystem().exists(StringHelper::toWString(path))) { // else its process has ended
            found.unreadable.push_back(path);
            found.reasons.push_back(reason.insert(0, path + ": "));
        }
    }
    return found;
}

/// The latest activity first.
std::vector<ProfileJob> group(std::vector<ProfileSnapshot> snapshots) {
    std::stable_sort(snapshots.begin(), snapshots.end(),
                     [](const auto& a, const auto& b) { return a.began > b.began; });
    std::vector<ProfileJob> jobs;
    for (ProfileSnapshot& snapshot : snapshots) {
        auto job = std::find_if(jobs.begin(), jobs.end(),
                                [&snapshot](const ProfileJob& each) { return each.takes(snapshot); });
        if (job == jobs.end())
            job = jobs.emplace(jobs.end());
        job->add(std::move(snapshot));
    }
    std::stable_sort(jobs.begin(), jobs.end(), [](const ProfileJob& a, const ProfileJob& b) {
        return a.getLastActivity() > b.getLastActivity();
    });
    return jobs;
}

bool isOlder(const std::string& path, double maxAge) {
    const double written = Platform::filesystem().getModificationTime(StringHelper::toWString(path));
    return written > 0.0 && Platform::time().getSecondsSinceEpoch() - written > maxAge;
}

} // namespace

std::vector<ProfileJob> ProfileJob::find(std::vector<std::string>* ignored, ProfileReader::Extent extent) {
    Found found = readAll(extent);
    if (ignored != nullptr)
        *ignored = std::move(found.reasons);
    return group(std::move(found.snapshots));
}

std::size_t ProfileJob::removeOld(double maxAge, std::size_t maxJobs, std::size_t maxBytes) {
    Found found = readAll(ProfileReader::Extent::STANDING);
    const double now = Platform::time().getSecondsSinceEpoch();
    std::size_t removed = 0;
    for (const std::string& path : found.unreadable)
        removed += isOlder(path, maxAge) && ProfileFile::remove(path) ? 1 : 0;
    std::size_t jobs = 0;
    std::size_t bytes = 0;
    for (const ProfileJob& job : group(std::move(found.snapshots))) {
        if (!job.isDead())
            continue;
        bytes += job.getMembers().size() * sizeof(ProfileLayout::Page);
        if (++jobs > maxJobs || bytes > maxBytes || now - job.getLastActivity() > maxAge)
            removed += job.remove();
    }
    return removed;
}

bool ProfileJob::takes(const ProfileSnapshot& member) const {
    const ProfileSnapshot& first = _members.front();
    return first.masterPid == member.masterPid && first.masterHost == member.masterHost &&
           first.ranks == member.ranks && std::abs(first.began - member.began) < START_TIME &&
           std::none_of(_members.begin(), _members.end(),
                        [&member](const auto& each) { return each.rank == member.rank; });
}

void ProfileJob::add(ProfileSnapshot member) {
    const auto place =
        std::lower_bound(_members.begin(), _members.end(), member.rank,
                         [](const ProfileSnapshot& each, unsigned rank) { return each.rank < rank; });
    _members.insert(place, std::move(member));
}

double ProfileJob::getBegan() const {
    double began = _members.front().began;
    for (const ProfileSnapshot& member : _members)
        began = std::min(began, member.began);
    return began;
}

double ProfileJob::getLastActivity() const {
    double last = _members.front().lastActivity;
    for (const ProfileSnapshot& member : _members)
        last = std::max(last, member.lastActivity);
    return last;
}

std::size_t ProfileJob::count(ProfileSnapshot::Life life) const {
    return static_cast<std::size_t>(std::count_if(_members.begin(), _members.end(),
                                                  [life](const auto& each) { return each.life == life; }));
}

std::size_t ProfileJob::remove() const {
    std::size_t removed = 0;
    for (const ProfileSnapshot& member : _members)
        removed += member.life != Life::LIVES && ProfileFile::remove(member.path) ? 1 : 0;
    return removed;
}
