#pragma once

#include "kernel/Properties.h"
#include "kernel/profile/LiveJob.h"

#include <string>

/// An answer of the server to a live view.
struct TopFrame {
    LiveJob job;
    Properties running;  ///< of `server.status`; empty when no command runs
    std::string session; ///< its name
    std::string clock;   ///< the time of the answer, "12:03:44"
    double age = 0.0;    ///< since the answer [s]
    std::string failure; ///< in words, when there is no answer
    std::string notice;  ///< what the server told unasked
};
