#pragma once

#include "platform/PlatformExport.h"

#include <string>

/// What went wrong in this process's floating-point work since the last check of the job; empty when nothing.
/// Main thread only.
class ORVEX_PLATFORM_EXPORT FloatingPointErrorRecord {
public:
    /// A later text replaces an earlier one.
    static void set(const std::string& text);

private:
    friend class FpuAccess;
    friend class GlobalFloatingPointError;
    friend class PlatformTestAccess;

    static const std::string& get();
    static void clear();
};
