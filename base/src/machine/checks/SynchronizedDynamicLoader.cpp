#include "machine/SynchronizedDynamicLoader.h"

#include "machine/GlobalCondition.h"

#include "kernel/DynamicLoader.h"
#include "kernel/Raise.h"
#include "kernel/SingletonCleaner.h"

SynchronizedDynamicLoader* SynchronizedDynamicLoader::_singleton = nullptr;
SynchronizedDynamicLoader::LoadedCallback SynchronizedDynamicLoader::_loadedCallback = nullptr;

namespace {

/// Collective. Every rank arrives here, also one whose own load failed.
void assertLoadedOnAll(bool loaded, const std::string& module, const std::string& reason) {
    if (GlobalCondition(loaded, GlobalCondition::ON_ALL))
        return;
    raise(SystemError(
        "DynamicLoader: couldn't load " + module + ".\n" + reason +
        ".\nPlease check that program is installed correctly and that installation is visible on all "
        "machines"));
}

} // namespace

SynchronizedDynamicLoader& SynchronizedDynamicLoader::getSingleton() {
    if (_singleton == nullptr)
        _singleton = new SynchronizedDynamicLoader;
    return *_singleton;
}

void SynchronizedDynamicLoader::reset() {
    delete _singleton;
    _singleton = nullptr;
}

SynchronizedDynamicLoader::SynchronizedDynamicLoader() {
    ORVEX_ASSERT_AS(nullptr == _singleton, "nullptr == _singleton", "Singleton already initialized");
    SingletonCleaner::registerReset(&SynchronizedDynamicLoader::reset);
}

bool SynchronizedDynamicLoader::isLoaded(const std::string& module) {
    return DynamicLoader::getSingleton().isLoaded(module);
}

void SynchronizedDynamicLoader::load(const std::string& module) {
    std::string reason;
    const bool loaded = DynamicLoader::getSingleton().loadNoAssert(module, reason);
    if (_loadedCallback)
        _loadedCallback();
    assertLoadedOnAll(loaded, module, reason);
}

void SynchronizedDynamicLoader::nonStateLoad(const std::string& module) {
    std::string reason;
    const bool loaded = DynamicLoader::getSingleton().nonStateLoadNoAssert(module, reason);
    if (_loadedCallback)
        _loadedCallback();
    assertLoadedOnAll(loaded, module, reason);
}
