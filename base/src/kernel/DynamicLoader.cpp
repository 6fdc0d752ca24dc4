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

/// Calls the entry of a loaded file. The reason of a failure, empty on success.
std::string startModule(const Platform::DynamicLibrary::LoadResult& library) {
    Platform::DynamicLibrary& libraries = Platform::dynamiclibrary();
    const auto entry = reinterpret_cast<Entry>(libraries.findSymbol(library.handle, ENTRY_SYMBOL));
    if (entry == nullptr)
        return {};
    // A failed entry may have registered objects of the module, so it isn't unloaded.
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
    std::string loadModule(const std::string& module);

    mutable std::mutex mutex;
    std::vector<std::string> loaded;
    std::vector<void*> started; ///< handles: a module may be named by its name and by its path
    std::vector<std::string> stateModules;
};

/// Loads the file and starts the module, unless that was done under another name. The reason of a failure,
/// empty on success.
std::string DynamicLoader::Impl::loadModule(const std::string& module) {
    const Platform::DynamicLibrary::LoadResult library = Platform::dynamiclibrary().load(module);
    if (library.handle == nullptr)
        return library.error.empty() ? "the loader gives no reason" : library.error;
    {
        const std::lock_guard guard(mutex);
        if (std::find(started.begin(), started.end(), library.handle) != started.end())
            return {};
    }
    std::string failure = startModule(library);
    const std::lock_guard guard(mutex);
    if (failure.empty())
        started.push_back(library.handle);
    return failure;
}

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
