#include "machine/ExitStatus.h"

#include <array>
#include <stdexcept>

namespace {

constexpr unsigned LAST_CODE = ExitStatus::NON_RECOVERABLE_SERVER_ERROR;

/// Indexed by code.
constexpr std::array<const char*, LAST_CODE + 1> _errorStrings = {
    "Success",
    "Server error",
    "Invalid server argument",
    "File error",
    "",
    "Floating point error during last iteration",
    "Non-recoverable server error",
};

constexpr std::uint32_t bitOf(ExitStatus::ErrorCode code) {
    return code == ExitStatus::SUCCESS ? 0u : 1u << (code - 1);
}

} // namespace

ExitStatus& ExitStatus::operator+=(const ErrorCode& code) {
    set(code);
    return *this;
}

ExitStatus& ExitStatus::operator+=(const ExitStatus& other) {
    _word |= other._word;
    return *this;
}

std::string ExitStatus::getMessage() const {
    std::string message;
    for (const ErrorCode code :
         {NON_RECOVERABLE_SERVER_ERROR, FLOATING_POINT_ERROR, FILE_ERROR, INVALID_SERVER_ARGUMENT}) {
        if ((_word & bitOf(code)) == 0)
            continue;
        if (!message.empty())
            message += ',';
        message += _errorStrings[code];
    }
    return message;
}

void ExitStatus::set(ErrorCode code) {
    if (code > LAST_CODE)
        throw std::out_of_range("invalid bitset<N> position");
    _word |= bitOf(code);
}
