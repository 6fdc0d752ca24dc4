#include "machine/MachineGround.h"

#include "machine/ground/MachineOptions.h"

#include "kernel/OrvexVersion.h"
#include "kernel/Raise.h"

MachineGround::State MachineGround::_ground;
MachineOptions MachineGround::_options;

Communicator& MachineGround::globalCommunicator() {
    ORVEX_ASSERT_AS(isParallel(), "isParallel()", "Attempt to access GlobalCommunicator in serial");
    return *_ground.global;
}

Communicator& MachineGround::commandCommunicator() {
    return _ground.command ? *_ground.command : globalCommunicator();
}

Communicator& MachineGround::sharedMemCommunicator(ShmemScope scope) {
    ORVEX_ASSERT_AS(isParallel(), "isParallel()", "Attempt to access sharedMemCommunicator in serial");
    return *_ground.shmem.at(static_cast<std::size_t>(scope));
}

Communicator* MachineGround::hasSparseCommunicator(ShmemScope scope) {
    ORVEX_ASSERT_AS(isParallel(), "isParallel()", "Attempt to access interNodeCommunicator in serial");
    return _ground.sparse.at(static_cast<std::size_t>(scope));
}

const MachineHost& MachineGround::getHost() {
    ORVEX_ASSERT_AS(_ground.host, "_host", "Host is not enabled");
    return *_ground.host;
}

bool MachineGround::getPrintpids() {
    return _options.printPids;
}

bool MachineGround::hasDevErrorChecking() {
    return _ground.devErrorChecking && OrvexVersion::isDevelopmentVersion();
}

std::string MachineGround::getStateString(NodeState state) {
    switch (state) {
    case UNKNOWN_STATE:
        break;
    case AWAITING_COMMAND:
        return "Awaiting command";
    case GATHERING_RESPONSE:
        return "Gathering response";
    case HANDLING_ERROR:
        return "Handling error";
    case PROCESSING:
        return "Processing";
    }
    return "Unknown";
}
