#pragma once

#include "platform/PlatformExport.h"

#include <string>
#include <vector>

namespace Platform {

/// Modules loaded at run time. Local, any thread.
///
/// A module has a bare name, "OrvexScene": the file is then "libOrvexScene.so". It is looked for beside the
/// program, in the folder "lib" beside the program's folder, beside this library, and then wherever the
/// system's loader looks. A name with a separator is a path; one that ends in ".so", or has ".so." in it, is
/// a file name.
class ORVEX_PLATFORM_EXPORT DynamicLibrary {
public:
    /// The reach of the module's symbols.
    enum Visibility { LOCAL, GLOBAL };
    struct LoadResult {
        void* handle = nullptr; ///< null on failure
        std::string error;      ///< on failure: each path tried and the loader's reason
        std::string path;       ///< on success: the file
    };

    /// Loads a module, with all its symbols resolved at once; a second time gives the same handle again.
    /// An exception that leaves an initialiser of the module can't pass the system's loader: the terminate
    /// handler ends the process, behind a line on the standard error stream that names the file.
    LoadResult load(const std::string& name, Visibility visibility = LOCAL);
    /// Null when the module has no such symbol.
    void* findSymbol(void* handle, const std::string& name) const;
    /// Whether a library of this name (as for load(), or a file name) is in the process. Any code may have
    /// loaded it.
    bool isLoaded(const std::string& name) const;
    /// Gives a handle back. @return an empty text, or the loader's reason on failure
    std::string unload(void* handle);
    /// The files that load() tries, in order; the last is for the system's loader to find.
    std::vector<std::string> getCandidates(const std::string& name) const;
};

/// The one dynamic-library service of the process.
ORVEX_PLATFORM_EXPORT DynamicLibrary& dynamiclibrary();

} // namespace Platform
