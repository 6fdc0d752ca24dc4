// A module whose start fails.

#include "kernel/Module.h"

#include <stdexcept>

ORVEX_MODULE_ENTRY() {
    throw std::runtime_error("no licence");
}
