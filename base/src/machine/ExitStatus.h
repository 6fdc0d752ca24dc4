#pragma once

#include "machine/MachineExport.h"

#include <cstdint>
#include <string>

/// The reasons for the end of a process: a set of error codes in one word, which is also its exit value.
///
/// Several codes add up. Code c above 0 is bit c - 1, so NON_RECOVERABLE_SERVER_ERROR alone exits with 32.
class ORVEX_MACHINE_EXPORT ExitStatus {
public:
    enum ErrorCode : unsigned {
        SUCCESS = 0,
        SERVER_ERROR = 1,
        INVALID_SERVER_ARGUMENT = 2,
        FILE_ERROR = 3,
        FLOATING_POINT_ERROR = 5, ///< during the last iteration
        NON_RECOVERABLE_SERVER_ERROR = 6
    };

    ExitStatus() = default;
    /// @throw std::out_of_range for a code above 6
    ExitStatus(const ErrorCode& code) { set(code); }

    /// Adds a code. @throw std::out_of_range for a code above 6; the status is unchanged then
    ExitStatus& operator+=(const ErrorCode& code);
    /// Adds all codes of `other`.
    ExitStatus& operator+=(const ExitStatus& other);

    /// The word: the exit value.
    operator int() const { return static_cast<int>(_word); }
    bool hasError() const { return _word != 0; }
    /// The texts of the codes for people, the gravest first, separated by "," without a blank. SERVER_ERROR,
    /// the status of a failure that nothing more is known of, adds no text.
    std::string getMessage() const;

private:
    void set(ErrorCode code);

    std::uint32_t _word = 0;
};
