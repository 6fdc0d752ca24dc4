#pragma once

#include "platform/PlatformExport.h"

#include <string>

/// The floating-point errors of this process since the last check of the job; empty when there were none.
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
