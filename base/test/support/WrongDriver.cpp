#include "mpiwrapper/MpiDriver.h"

// Modules that the wrapper has to refuse: one of another interface version, one with another list of
// functions, one that lacks what no driver may lack, and, without any of the definitions, one that is no
// driver.

#ifdef ORVEX_WRONG_DRIVER
extern "C" __attribute__((visibility("default"))) const MpiDriver ORVEX_MPI_DRIVER_SYMBOL;
const MpiDriver ORVEX_MPI_DRIVER_SYMBOL{ORVEX_WRONG_DRIVER};
#else
extern "C" __attribute__((visibility("default"))) int orvexNotADriver() {
    return 0;
}
#endif
