#include "kernel/SiteSettings.h"

#include "kernel/Error.h"
#include "kernel/SingletonCleaner.h"
#include "kernel/UserDirectory.h"
#include "platform/FileSystem.h"
#include "platform/Log.h"

#include <mutex>
#include <utility>

SiteSettings* SiteSettings::_singleton = nullptr;

namespace {

std::mutex singletonMutex;

Properties readSettings() {
    const std::wstring path = SiteSettings::getFilePath();
    if (path.empty() || !Platform::filesystem().exists(path))
        return Properties();
    std::string text;
    if (!Platform::filesystem().readFile(path, text, SiteSettings::MAX_FILE_SIZE)) {
        OS::Log::instance("Default").warning("SiteSettings", "@0@ can't be read, or has more than @1@ bytes",
                                             path, SiteSettings::MAX_FILE_SIZE);
        return Properties();
    }
    try {
        return Properties(text);
    } catch (const InputError& error) {
        OS::Log::instance("Default").warning("SiteSettings", "@0@: @1@", path, error.what());
        return Properties();
    }
}

template <class T>
T getOr(const Properties& settings, const std::string& key, T value) {
    if (!settings.hasName(key))
        return value;
    try {
        settings.get(key, value);
    } catch (const InputError& error) {
        OS::Log::instance("Default").warning("SiteSettings", "@0@: @1@", SiteSettings::getFilePath(),
                                             error.what());
    }
    return value;
}

} // namespace

SiteSettings& SiteSettings::getSingleton() {
    const std::lock_guard guard(singletonMutex);
    if (_singleton == nullptr) {
        _singleton = new SiteSettings;
        SingletonCleaner::registerReset(&SiteSettings::reset);
    }
    return *_singleton;
}

void SiteSettings::reset() {
    const std::lock_guard guard(singletonMutex);
    delete std::exchange(_singleton, nullptr);
}

SiteSettings::SiteSettings() : _settings(readSettings()) {}

SiteSettings::~SiteSettings() = default;

int SiteSettings::getInt(const std::string& key, int defaultValue) const {
    return getOr(_settings, key, defaultValue);
}

double SiteSettings::getReal(const std::string& key, double defaultValue) const {
    return getOr(_settings, key, defaultValue);
}

bool SiteSettings::getBool(const std::string& key, bool defaultValue) const {
    return getOr(_settings, key, defaultValue);
}

std::string SiteSettings::getString(const std::string& key, const std::string& defaultValue) const {
    return getOr(_settings, key, defaultValue);
}

std::wstring SiteSettings::getFilePath() {
    const std::wstring directory = UserDirectory::find("XDG_CONFIG_HOME", L".config");
    return directory.empty() ? directory : Platform::filesystem().join(directory, L"settings.json");
}
