#include "platform/LoadedLibraries.h"

#include <algorithm>
#include <dlfcn.h>
#include <link.h>
#include <string_view>

namespace {

std::string_view fileName(std::string_view path) {
    return path.substr(path.find_last_of('/') + 1);
}

} // namespace

LoadedLibraries::Library::Library(const std::string& path, void* handle) : _path(path), _handle(handle) {}

LoadedLibraries::Library::~Library() {
    ::dlclose(_handle);
}

void* LoadedLibraries::Library::findSymbol(const std::string& name) const {
    void* const symbol = ::dlsym(_handle, name.c_str());
    Dl_info info{};
    // The loader also looks into the libraries behind this one.
    if (symbol == nullptr || ::dladdr(symbol, &info) == 0 || info.dli_fname == nullptr ||
        fileName(info.dli_fname) != fileName(_path))
        return nullptr;
    return symbol;
}

unsigned long long LoadedLibraries::countChanges() {
    unsigned long long count = 0;
    ::dl_iterate_phdr(
        [](dl_phdr_info* info, std::size_t, void* data) {
            *static_cast<unsigned long long*>(data) = info->dlpi_adds + info->dlpi_subs;
            return 1; // the first one tells it
        },
        &count);
    return count;
}

std::vector<std::unique_ptr<LoadedLibraries::Library>>
LoadedLibraries::find(const std::vector<std::string>& prefixes) {
    // The loader is locked meanwhile: the names are taken first.
    std::vector<std::string> paths;
    ::dl_iterate_phdr(
        [](dl_phdr_info* info, std::size_t, void* data) {
            if (info->dlpi_name && *info->dlpi_name)
                static_cast<std::vector<std::string>*>(data)->emplace_back(info->dlpi_name);
            return 0;
        },
        &paths);
    std::vector<std::unique_ptr<Library>> libraries;
    for (const std::string& path : paths) {
        const std::string_view name = fileName(path);
        if (std::none_of(prefixes.begin(), prefixes.end(),
                         [name](const std::string& prefix) { return name.starts_with(prefix); }))
            continue;
        if (void* const handle = ::dlopen(path.c_str(), RTLD_LAZY | RTLD_NOLOAD))
            libraries.push_back(std::make_unique<Library>(path, handle));
    }
    return libraries;
}
