// The console operations of Machine: the output of each rank of a running job, and its destination.

#include "machine/Machine.h"

#include "machine/Communicator.h"
#include "machine/GlobalErrorCheck.h"
#include "machine/StandardStreamManager.h"
#include "machine/files/ParallelConsoleBuf.h"

#include "kernel/Raise.h"
#include "platform/StringHelper.h"

#include <iostream>
#include <system_error>

void Machine::enableSlaveCout(bool on) {
    if (isSerial())
        return;
    if (on)
        ORVEX_GLOBAL_CHECK(
            !getStandardStreamManager().hasRedirectedOriginalStreams(), GlobalCondition::ON_MASTER,
            InputError("Cannot enable parallel output after the server has disconnected from it's parent"));
    if (isMaster())
        return;
    // The output so far goes to the old destination.
    std::cout << std::flush;
    if (on)
        getStandardStreamManager().restore();
    else
        getStandardStreamManager().redirectToNullDevice();
    _parallelConsoleBuf->enableConsole(on);
}

bool Machine::slaveCoutEnabled() const {
    return _parallelConsoleBuf != nullptr && _parallelConsoleBuf->isConsoleOn();
}

void Machine::enableSlaveCoutLogFile(bool on) {
    if (isSerial())
        return;
    const int error = _parallelConsoleBuf->enableLogFile(on);
    Communicator& communicator = globalCommunicator();
    unsigned failed = error == 0 ? communicator.size() : communicator.myRank();
    communicator.allReduce(failed, Communicator::MIN);
    if (failed == communicator.size())
        return;
    static_cast<void>(_parallelConsoleBuf->enableLogFile(false)); // all ranks or none
    std::string reason = std::generic_category().message(error);
    communicator.broadcast(reason, failed);
    raise(SystemError("Rank " + std::to_string(failed) + " could not open its log file " +
                      StringHelper::toValidUtf8(_parallelConsoleBuf->getLogPath(failed)) + ": " + reason));
}
