#pragma once

#include "platform/PlatformExport.h"

#include <memory>
#include <string>
#include <vector>

/// The shared libraries in this process, whoever loaded them and however: also those that give their symbols
/// to nobody else. Any thread. Inside this project.
class ORVEX_PLATFORM_EXPORT LoadedLibraries {
public:
    /// A library that stays loaded as long as this is kept.
    class ORVEX_PLATFORM_EXPORT Library {
    public:
        Library(const std::string& path, void* handle);
        ~Library();
        Library(const Library&) = delete;
        Library& operator=(const Library&) = delete;

        const std::string& getPath() const { return _path; }
        /// Of this library itself, not of those that it needs; null when it has no such symbol.
        void* findSymbol(const std::string& name) const;

    private:
        std::string _path;
        void* _handle;
    };

    /// How often libraries came or went so far: while it stays, find() finds the same ones.
    static unsigned long long countChanges();
    /// Those whose file name begins with one of `prefixes`.
    static std::vector<std::unique_ptr<Library>> find(const std::vector<std::string>& prefixes);
};
