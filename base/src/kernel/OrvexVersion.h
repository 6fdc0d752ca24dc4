#pragma once

#include "kernel/KernelExport.h"

#include <string>

/// Describes this build. A development version checks more, across ranks too, and tells more.
class ORVEX_KERNEL_EXPORT OrvexVersion {
public:
    static bool isDevelopmentVersion() { return _isDevelopmentVersion; }

    static std::string getProductName();
    /// Product name and release number; a development version says that it is one.
    static std::string getVersionedProductName();

    static const char* const _releaseNumber; ///< "0.1.0"
    static const char* const _releaseDate;   ///< of the build, "2025-01-31"
    static const char* const _buildArch;     ///< "linux-x86_64"
    static const char* const _buildEnv;      ///< compiler and its version, "gcc12.2"

    /// "Serial", or "Np=" with the number of processes. Set once when the role is fixed.
    static std::string _machineConfig;

private:
    static const bool _isDevelopmentVersion;
};
