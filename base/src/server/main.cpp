#include "machine/ExitStatus.h"
#include "machine/Machine.h"

#include "kernel/Error.h"

#include <cstdlib>
#include <iostream>
#include <stdexcept>
#include <string>

namespace {

/// The start failed before the machine could guard itself: one line, and the job's end.
int refuseStart(std::string reason, const ExitStatus& status, const char* what) {
    for (char& character : reason)
        if (character == '\n')
            character = ' ';
    std::cout.flush();
    std::cerr << "orvexsim: " << what << ": " << reason << std::endl;
    Machine::endFailedStart(status);
    return status;
}

std::string explain(const Error& error) {
    const Properties& properties = error.getProperties();
    constexpr const char* REASON = "Reason";
    std::string text = error.what();
    if (properties.hasName(REASON))
        text += ": " + properties.getString(REASON);
    return text;
}

} // namespace

int main(int argc, char** argv) {
    const ExitStatus failed(ExitStatus::SERVER_ERROR);
    try {
        Machine::getSingleton().main(argc, argv);
        return Machine::getSingleton().getExitStatus();
    } catch (const std::invalid_argument& error) {
        const ExitStatus invalid(ExitStatus::INVALID_SERVER_ARGUMENT);
        return refuseStart(error.what(), invalid, "Invalid server argument");
    } catch (const Error& error) {
        return refuseStart(explain(error), failed, "Server error");
    } catch (const std::exception& error) {
        return refuseStart(error.what(), failed, "Server error");
    } catch (...) {
        return refuseStart("an error of unknown type", failed, "Server error");
    }
}
