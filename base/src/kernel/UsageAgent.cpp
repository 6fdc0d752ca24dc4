#include "kernel/UsageAgent.h"

#include "kernel/AnalyticsManager.h"
#include "kernel/UserDirectory.h"
#include "platform/FileSystem.h"

Analytics::Manager* UsageAgent::createAnalyticsManager(const std::string& productKey,
                                                       const std::string& releaseNumber, bool active,
                                                       int siteConsent, bool developmentVersion) {
    std::wstring path;
    if (active && siteConsent != 0) {
        const std::wstring directory = UserDirectory::find("XDG_STATE_HOME", L".local/state");
        if (!directory.empty())
            path = Platform::filesystem().join(directory, L"usage.jsonl");
    }
    return new Analytics::Manager(productKey, releaseNumber, developmentVersion, path);
}
