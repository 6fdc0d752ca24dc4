#include "kernel/DynamicLoader.h"

#include "kernel/Raise.h"
#include "kernel/SingletonCleaner.h"
#include "platform/DynamicLibrary.h"

#include <algorithm>
#include <mutex>
#include <utility>

DynamicLoader* DynamicLoader::_singleton = nullptr;

namespace {

constexpr const char* ENTRY_SYMBOL = "orvexModuleEntry";
using Entry = void (*)();

bool contains(const std::vector<std::string>& names, const std::string& name) {
    return std::find(names.begin(), names.end(), name) != names.end();
}

/// Loads the file and calls the entry. The reason of a failure, empty on success.
std::string loadModule(const std::string& module) {
    Platform::DynamicLibrary& libraries = Platform::dynamiclibrary();
    const Platform::DynamicLibrary::LoadResult library = libraries.load(module);
    if (library.handle == nullptr)
        return library.error.empty() ? "the loader gives no reason" : library.error;
    const auto entry = reinterpret_cast<Entry>(libraries.findSymbol(library.handle, ENTRY_SYMBOL));
    if (entry == nullptr)
        return {};
    // What a failed entry has registered already keeps the module in the process: it isn't unloaded.
    try {
        entry();
        return {};
    } catch (const std::exception& error) {
        return library.path + ": its start failed: " + error.what();
    } catch (...) {
        return library.path + ": its start failed with an exception of an unknown type";
    }
}

} // namespace

struct DynamicLoader::Impl {
    bool load(const std::string& module, bool isState, std::string& reason);

    mutable std::mutex mutex;
    std::vector<std::string> loaded;
    std::vector<std::string> stateModules;
};

bool DynamicLoader::Impl::load(const std::string& module, bool isState, std::string& reason) {
    bool isLoaded = false;
    {
        const std::lock_guard guard(mutex);
        isLoaded = contains(loaded, module);
    }
    if (!isLoaded) {
        // Not under the mutex: an entry may load further modules.
        const std::string failure = loadModule(module);
        if (!failure.empty()) {
            reason = failure;
            return false;
        }
    }
    const std::lock_guard guard(mutex);
    if (!contains(loaded, module))
        loaded.push_back(module);
    if (isState && !contains(stateModules, module))
        stateModules.push_back(module);
    return true;
}

DynamicLoader& DynamicLoader::getSingleton() {
    if (_singleton == nullptr)
        _singleton = new DynamicLoader;
    return *_singleton;
}

void DynamicLoader::reset() {
    delete std::exchange(_singleton, nullptr);
}

DynamicLoader::DynamicLoader() : _impl(std::make_unique<Impl>()) {
    SingletonCleaner::registerReset(&DynamicLoader::reset);
}

DynamicLoader::~DynamicLoader() = default;

bool DynamicLoader::isLoaded(const std::string& module) const {
    const std::lock_guard guard(_impl->mutex);
    return contains(_impl->loaded, module);
}

void DynamicLoader::load(const std::string& module) {
    std::string reason;
    if (!loadNoAssert(module, reason))
        raise(SystemError("DynamicLoader: couldn't load " + module + ".\n" + reason));
}

bool DynamicLoader::loadNoAssert(const std::string& module, std::string& reason) {
    return _impl->load(module, true, reason);
}

bool DynamicLoader::nonStateLoadNoAssert(const std::string& module, std::string& reason) {
    return _impl->load(module, false, reason);
}

std::vector<std::string> DynamicLoader::getStateModules() const {
    const std::lock_guard guard(_impl->mutex);
    return _impl->stateModules;
}
