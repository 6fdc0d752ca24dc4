#include "machine/ExitStatus.h"
#include "machine/Machine.h"

#include "platform/Io.h"

#include <algorithm>
#include <cstdlib>
#include <iostream>
#include <stdexcept>
#include <string>

namespace {

/// Before the constructors of any library: one of them might open a file that becomes a standard stream.
void openStandardDescriptors() {
    if (!Platform::io().openStandardDescriptors())
        std::_Exit(1); // nobody can be told
}

[[gnu::section(".preinit_array"), gnu::used]] void (*const beforeConstructors)() = openStandardDescriptors;

/// The start failed before the machine could guard itself: one line, and the job's end.
int refuseStart(const ExitStatus& status, const char* what, const std::string& reason) {
    std::string line = std::string("orvexsim: ") + what + ": " + reason;
    std::replace(line.begin(), line.end(), '\n', ' ');
    std::cout.flush();
    Machine::endFailedStart(status, line);
    return status;
}

} // namespace

int main(int argc, char** argv) {
    const ExitStatus failed(ExitStatus::SERVER_ERROR);
    try {
        Machine::getSingleton().main(argc, argv);
        return Machine::getSingleton().getExitStatus();
    } catch (const std::invalid_argument& error) {
        const ExitStatus invalid(ExitStatus::INVALID_SERVER_ARGUMENT);
        return refuseStart(invalid, "Invalid server argument", error.what());
    } catch (const std::exception& error) {
        return refuseStart(failed, "Server error", error.what());
    } catch (...) {
        return refuseStart(failed, "Server error", "an error of unknown type");
    }
}
