#include "platform/StackTracer.h"

#include <string>
#include <vector>

extern "C" __attribute__((visibility("default"), noinline)) void
orvexTestModuleTrace(std::vector<std::string>& trace) {
    trace = Platform::error().getStackTrace(4);
}
