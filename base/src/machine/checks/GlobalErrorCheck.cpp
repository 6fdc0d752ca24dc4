#include "machine/GlobalErrorCheck.h"

#include "machine/Communicator.h"
#include "machine/GroundLocks.h"
#include "machine/MachineGround.h"

bool GlobalErrorCheck::holds(bool condition, GlobalCondition::ModeEnum mode, const char* file, int line) {
    const GlobalCondition ok(condition, mode);
    if (MachineGround::isParallel() && MachineGround::hasDevErrorChecking() &&
        (mode != GlobalCondition::ON_ALL_INVARIANT ||
         MachineGround::nProcesses() <= GlobalCondition::MAX_CHECKED_PROCESSES))
        assertSameContext(file, line);
    return ok;
}

void GlobalErrorCheck::assertSameContext(const std::string& file, int line) {
    const MachineGround::ParallelPerformanceCritical::Exemption exemption;
    Communicator& communicator = MachineGround::globalCommunicator();
    int lineMaster = line;
    communicator.broadcast(lineMaster, Communicator::masterRank());
    if (!GlobalCondition(line != lineMaster, GlobalCondition::ON_ANY))
        return;
    std::string fileMaster = file;
    communicator.broadcast(fileMaster, Communicator::masterRank());
    if (line != lineMaster)
        raiseInternalError("Mismatched contexts for global error check:\n   line: " + std::to_string(line) +
                               ", file: " + file + "\n   master line: " + std::to_string(lineMaster) +
                               ", master file: " + fileMaster,
                           "line == lineMaster", file.c_str(), line);
}
