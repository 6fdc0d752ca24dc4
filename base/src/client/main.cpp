#include "client/Ctl.h"
#include "client/CtlOptions.h"

int main(int argc, char** argv) {
    std::optional<int> exitCode;
    const CtlOptions options = CtlOptions::parse(argc, argv, exitCode);
    return exitCode ? *exitCode : Ctl(options).run();
}
