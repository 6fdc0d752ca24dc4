#pragma once

#include "kernel/KernelExport.h"

#include <memory>
#include <string>
#include <vector>

/// Loads modules at run time, by name and once. A module stays loaded for the life of the process. Local;
/// main thread, but isLoaded() any.
class ORVEX_KERNEL_EXPORT DynamicLoader {
public:
    static DynamicLoader& getSingleton();
    static void reset();

    /// Whether the module was loaded, and its entry succeeded.
    bool isLoaded(const std::string& module) const;

    /// Loads a module that a saved state depends on. Loading it again is a success.
    /// @throw SystemError with the reason
    void load(const std::string& module);
    /// The same without an exception.
    /// @param reason  on failure: why, with each path tried; left alone on success
    /// @return whether the module is loaded
    bool loadNoAssert(const std::string& module, std::string& reason);
    /// Loads a module that no saved state depends on; the name doesn't appear in getStateModules().
    bool nonStateLoadNoAssert(const std::string& module, std::string& reason);

    /// The modules that a saved state needs, in the order of their loading.
    std::vector<std::string> getStateModules() const;

private:
    struct Impl;
    DynamicLoader();
    ~DynamicLoader();

    static DynamicLoader* _singleton;
    std::unique_ptr<Impl> _impl;
};
