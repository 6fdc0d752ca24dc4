#include "machine/MessageBuffers.h"

#include "kernel/Raise.h"

const std::string MessageBuffers::_oversizedMessageString =
    "An oversized communication message has been detected.";
const std::string MessageBuffers::_oversizedMessageHint =
    "Oversized messages may imply too few parallel processes are being used.";

void MessageBuffers::raiseInvalidCast(unsigned long long value, unsigned long long bound) {
    raiseInternalError(
        "Invalid integer cast.\nAn oversized message size or displacement has been detected.\n" +
            _oversizedMessageHint + "\nActual value = " + std::to_string(value) +
            "\nMax value = " + std::to_string(bound) + "\n",
        "false", __FILE__, __LINE__);
}
