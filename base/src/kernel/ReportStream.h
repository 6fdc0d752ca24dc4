#pragma once

#include "kernel/KernelExport.h"

#include <string>

/// The stream for traces and last words of faults: the standard error stream by default. Any thread.
class ORVEX_KERNEL_EXPORT ReportStream {
public:
    static void setDescriptor(int descriptor);
    static int getDescriptor();
    /// Nobody hears of a failure: the stream is the last one.
    static void write(const std::string& text);
};
