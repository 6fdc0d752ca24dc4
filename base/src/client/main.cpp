#include "client/Ctl.h"
#include "client/CtlOptions.h"

#include "platform/Io.h"
#include "platform/Signals.h"

#include <csignal>

int main(int argc, char** argv) {
    Platform::io().openStandardDescriptors();   // a refusal shows when one of them is used
    for (const int signal : {SIGPIPE, SIGXFSZ}) // a write that fails tells it itself
        Platform::signals().ignore(signal);
    std::optional<int> exitCode;
    const CtlOptions options = CtlOptions::parse(argc, argv, exitCode);
    return exitCode ? *exitCode : Ctl(options).run();
}
