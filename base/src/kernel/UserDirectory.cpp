#include "kernel/UserDirectory.h"

#include "platform/FileSystem.h"
#include "platform/StringHelper.h"
#include "platform/System.h"

#include <optional>

std::wstring UserDirectory::find(const std::string& variable, const std::wstring& fallback) {
    Platform::FileSystem& files = Platform::filesystem();
    const std::optional<std::string> named = Platform::system().getEnvironment(variable);
    if (named && named->starts_with('/'))
        return files.join(StringHelper::fromBytes(*named), L"orvex");
    const std::wstring home = Platform::system().getHomeDirectory();
    return home.empty() ? home : files.join(files.join(home, fallback), L"orvex");
}
