#include "machine/reports/RankProfile.h"

#include "machine/MachineGround.h"
#include "machine/MachineHost.h"
#include "machine/messages/OperationRecord.h"
#include "machine/reports/ProfileWriting.h"

#include "kernel/OrvexVersion.h"
#include "kernel/profile/ProfileFile.h"
#include "kernel/profile/ProfileJob.h"
#include "platform/BatchSystem.h"
#include "platform/Log.h"
#include "platform/TickClock.h"
#include "platform/Time.h"

#include <string>
#include <utility>

ProfileFile* RankProfile::_file = nullptr;

namespace {

void describeRank(ProfileLayout::Header& header) {
    header.rank = MachineGround::getPartitionId();
    header.ranks = MachineGround::nProcesses();
    for (const auto& [host, process] : MachineGround::getHost().getHostPidMap()) {
        if (process.second == header.rank)
            ProfileWriting::copyText(header.host, host);
        if (process.second != 0)
            continue;
        ProfileWriting::copyText(header.masterHost, host);
        header.masterPid = static_cast<std::int32_t>(process.first);
    }
}

} // namespace

void RankProfile::start() {
    ProfileJob::removeOld(); // files in memory take memory
    std::string reason;
    std::unique_ptr<ProfileFile> file = ProfileFile::create(&reason);
    if (!file) {
        OS::Log::instance("Default").info("RankProfile::start", "No profile is kept: @0@", reason);
        return;
    }
    ProfileLayout::Header& header = file->getPage().header;
    describeRank(header);
    ProfileWriting::copyText(header.product, OrvexVersion::getVersionedProductName());
    ProfileWriting::copyText(header.job, Platform::findBatchJob());
    header.beganAt = static_cast<std::int64_t>(Platform::time().getSecondsSinceEpoch() * 1e9);
    header.beginTick = Platform::TickClock::read();
    header.ticksPerSecond = Platform::TickClock::getTicksPerSecond();
    OperationRecord::moveTo(file->getPage());
    header.magic.store(ProfileLayout::MAGIC, std::memory_order_release);
    _file = file.release();
}

void RankProfile::stop() {
    if (!_file)
        return;
    OperationRecord::moveBack();
    delete std::exchange(_file, nullptr);
}
