#pragma once

#include "machine/MachineExport.h"

/// Registers with the Controller the commands by which a client asks the running job what it is and what it
/// does, and switches its logging, tracing and streams. Main thread, once.
ORVEX_MACHINE_EXPORT void registerMachineCommands();
