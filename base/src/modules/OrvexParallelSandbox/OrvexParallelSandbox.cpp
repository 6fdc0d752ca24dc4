// The commands of the sandbox.

#include "modules/OrvexParallelSandbox/SolveHeatConduction.h"

#include "kernel/Controller.h"
#include "kernel/Module.h"

ORVEX_MODULE_ENTRY() {
    Controller::getSingleton().registerCommand(new SolveHeatConduction);
}
