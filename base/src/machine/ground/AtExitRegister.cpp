#include "machine/AtExitRegister.h"

#include "kernel/Raise.h"

#include <cstdlib>

constinit std::uint32_t AtExitRegister::_nRegistered = 0;
constinit bool AtExitRegister::_isExiting = false;

namespace {

/// The lowest priority number open to programs: ahead of every other initialiser of the library, so that the
/// function registered here is the last one called.
__attribute__((constructor(101))) void registerSetExiting() {
    AtExitRegister::registerFunction(&AtExitRegister::setExiting);
}

} // namespace

void AtExitRegister::registerFunction(void (*f)()) {
    ORVEX_ASSERT(_nRegistered < maxRegistrations, "Exhausted default limit on number of atexit functions");
    const int refused = std::atexit(f);
    ORVEX_ASSERT_AS(refused == 0, "std::atexit(f) == 0", "The C runtime refused an atexit function");
    ++_nRegistered;
}
