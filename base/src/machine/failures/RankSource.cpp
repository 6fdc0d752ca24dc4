#include "machine/failures/RankSource.h"

#include "kernel/profile/ProfileFile.h"
#include "kernel/profile/ProfileReader.h"
#include "platform/ProcessUse.h"

#include <algorithm>
#include <string>

using Platform::ProcessUse;
using Platform::ThreadState;

namespace {

constexpr const char* LENDS = "leaveHybridContext"; ///< the operation in which a rank sleeps beside threads

constexpr unsigned LOOKS_BETWEEN_SEARCHES = 30; ///< for profiles that weren't there

LiveRank::State toState(ThreadState::State state) {
    switch (state) {
    case ThreadState::RUNS:
        return LiveRank::COMPUTES;
    case ThreadState::STOPPED:
    case ThreadState::TRACED:
        return LiveRank::STOPPED;
    case ThreadState::DEAD:
        return LiveRank::DEAD;
    case ThreadState::SLEEPS:
    case ThreadState::DISK:
        break;
    }
    return LiveRank::SLEEPS;
}

/// "allReduce" of "Communicator::AllReduce", as the roll call names it.
std::string shorten(const std::string& name) {
    std::string word = name.substr(name.rfind(':') + 1);
    if (!word.empty() && word[0] >= 'A' && word[0] <= 'Z')
        word[0] = static_cast<char>(word[0] - 'A' + 'a');
    return word;
}

void take(const ProfileSnapshot& profile, RankSample& sample) {
    sample.hasProfile = true;
    sample.isInside = profile.isInside;
    sample.waitSeconds = profile.waitSeconds;
    double open = 0.0;
    if (!profile.operations.empty() && profile.operations.front().isOpen) {
        const ProfileSnapshot::Operation& operation = profile.operations.front();
        sample.operation = operation.name.empty() ? "an operation" : shorten(operation.name);
        sample.operationSeconds = operation.seconds;
        if (sample.operation != LENDS) // its processor works for another rank meanwhile
            open = operation.seconds;
        sample.waitSeconds += open;
    }
    if (profile.commands.empty())
        return;
    const ProfileSnapshot::Command& command = profile.commands.front();
    sample.command = RankSample::Command{command.name,
                                         command.seconds,
                                         command.processorSeconds,
                                         static_cast<long long>(command.memory),
                                         std::min(command.waitSeconds + open, command.seconds),
                                         command.operations,
                                         command.bytes};
}

} // namespace

struct RankSource::Source {
    Process process;
    unsigned long long startStamp = 0;
    std::unique_ptr<ProfileReader> profile;
};

RankSource::RankSource(const std::vector<Process>& processes) {
    for (const Process& process : processes)
        _sources.push_back({process, ThreadState::getStartStamp(process.pid), nullptr});
}

RankSource::~RankSource() = default;

/// The files bear the number of the process and the stamp of its start.
void RankSource::findProfiles() {
    const std::vector<std::string> paths = ProfileFile::find();
    for (Source& source : _sources) {
        if (source.profile)
            continue;
        const std::string end =
            "-" + std::to_string(source.process.pid) + "-" + std::to_string(source.startStamp);
        const auto path = std::find_if(paths.begin(), paths.end(),
                                       [&](const std::string& each) { return each.ends_with(end); });
        std::string reason;
        if (path != paths.end())
            source.profile = ProfileReader::open(*path, reason);
    }
}

std::vector<RankSample> RankSource::read() {
    const bool isComplete = std::all_of(_sources.begin(), _sources.end(),
                                        [](const Source& source) { return source.profile != nullptr; });
    if (!isComplete && _looks++ % LOOKS_BETWEEN_SEARCHES == 0)
        findProfiles();
    std::vector<RankSample> samples;
    samples.reserve(_sources.size());
    for (Source& source : _sources) {
        RankSample sample;
        sample.rank = source.process.rank;
        sample.pid = source.process.pid;
        const ProcessUse use = ProcessUse::read(source.process.pid, source.startStamp);
        sample.state = toState(use.state);
        sample.processorSeconds = use.processorSeconds;
        sample.memory = use.memory;
        std::string reason;
        if (source.profile && sample.state != LiveRank::DEAD)
            if (const auto profile = source.profile->read(reason, ProfileReader::Extent::STANDING))
                take(*profile, sample);
        samples.push_back(std::move(sample));
    }
    return samples;
}
