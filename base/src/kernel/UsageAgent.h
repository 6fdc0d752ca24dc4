#pragma once

#include "kernel/KernelExport.h"

#include <string>

namespace Analytics {
class Manager;
}

/// Decides whether usage is recorded.
class ORVEX_KERNEL_EXPORT UsageAgent {
public:
    /// Makes a manager, which the caller owns. It is initialised when `active` is true and `siteConsent`
    /// isn't 0; the record is then "usage.jsonl" in the directory "orvex" below XDG_STATE_HOME, or below
    /// ".local/state" of the home directory.
    static Analytics::Manager* createAnalyticsManager(const std::string& productKey,
                                                      const std::string& releaseNumber, bool active,
                                                      int siteConsent, bool developmentVersion);
};
