// A module that counts in the environment how often it was started.

#include "kernel/Module.h"

#include <cstdlib>
#include <string>

ORVEX_MODULE_ENTRY() {
    const char* before = std::getenv("ORVEX_TEST_MODULE_ENTRIES");
    ::setenv("ORVEX_TEST_MODULE_ENTRIES", before == nullptr ? "1" : (std::string(before) + "1").c_str(), 1);
}
