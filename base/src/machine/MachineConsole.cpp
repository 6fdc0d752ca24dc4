// What each rank of a running job prints, and where it goes: the console operations of Machine.

#include "machine/Machine.h"

#include "machine/GlobalErrorCheck.h"
#include "machine/ParallelConsoleBuf.h"
#include "machine/StandardStreamManager.h"

#include <iostream>

void Machine::enableSlaveCout(bool on) {
    if (isSerial())
        return;
    if (on)
        ORVEX_GLOBAL_CHECK(
            !getStandardStreamManager().hasRedirectedOriginalStreams(), GlobalCondition::ON_MASTER,
            InputError("Cannot enable parallel output after the server has disconnected from it's parent"));
    if (isMaster())
        return;
    // What was written so far belongs where it was to go so far.
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
    if (isParallel())
        _parallelConsoleBuf->enableLogFile(on);
}
