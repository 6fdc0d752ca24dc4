#include "platform/DynamicLibrary.h"

#include "platform/Io.h"
#include "platform/ProcFs.h"

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <dlfcn.h>
#include <exception>
#include <link.h>
#include <stdexcept>
#include <unistd.h>
#include <utility>

namespace Platform {

namespace {

std::string getFolder(const std::string& path) {
    const std::size_t separator = path.rfind('/');
    return separator == std::string::npos ? std::string() : path.substr(0, separator);
}

std::string getFileName(const std::string& path) {
    return path.substr(path.rfind('/') + 1);
}

bool isFileName(const std::string& name) {
    return name.ends_with(".so") || name.find(".so.") != std::string::npos;
}

std::string toFileName(const std::string& name) {
    return isFileName(name) ? name : "lib" + name + ".so";
}

/// The folder in which this library lies.
std::string getOwnFolder() {
    Dl_info info{};
    const auto* here = reinterpret_cast<const void*>(&getOwnFolder);
    return ::dladdr(here, &info) != 0 && info.dli_fname != nullptr ? getFolder(info.dli_fname)
                                                                   : std::string();
}

std::string takeLoaderError() {
    const char* reason = ::dlerror();
    return reason != nullptr ? reason : "the loader gave no reason";
}

/// The loader's reason begins with the path, which is told already.
std::string getReason(const std::string& path) {
    const std::string reason = takeLoaderError();
    const std::string head = path + ": ";
    return reason.starts_with(head) ? reason.substr(head.size()) : reason;
}

std::string getLoadedPath(void* handle, const std::string& asked) {
    const link_map* map = nullptr;
    if (::dlinfo(handle, RTLD_DI_LINKMAP, &map) == 0 && map != nullptr && map->l_name[0] != '\0')
        return map->l_name;
    return asked;
}

/// Names the file whose initialisers throw. No exception passes the system's loader, so the process ends.
class NamesWhatThrows {
public:
    explicit NamesWhatThrows(const std::string& file) : _outer(std::exchange(loadingFile, &file)) {
        if (_outer == nullptr)
            terminateBefore = std::set_terminate(&NamesWhatThrows::onTerminate);
    }
    NamesWhatThrows(const NamesWhatThrows&) = delete;
    NamesWhatThrows& operator=(const NamesWhatThrows&) = delete;
    ~NamesWhatThrows() {
        loadingFile = _outer;
        if (_outer == nullptr && std::get_terminate() == &NamesWhatThrows::onTerminate)
            std::set_terminate(terminateBefore);
    }

private:
    [[noreturn]] static void onTerminate() {
        if (loadingFile != nullptr && std::current_exception()) {
            std::string reason = "an exception of an unknown type";
            try {
                throw;
            } catch (const std::exception& error) {
                reason = error.what();
            } catch (...) { // is told as it stands
            }
            const std::string text =
                "The module " + *loadingFile +
                " can't be loaded: an initialiser of its static objects threw: " + reason;
            constexpr int STANDARD_ERROR = 2;
            const std::string line = "\n" + text + "\n";
            static_cast<void>(io().write(STANDARD_ERROR, line.data(), line.size()));
            try {
                throw std::runtime_error(text); // for the words that tell why the process terminates
            } catch (const std::runtime_error&) {
                passOn();
            }
        }
        passOn();
    }
    [[noreturn]] static void passOn() {
        if (const std::terminate_handler next = terminateBefore)
            next();
        std::abort();
    }

    static thread_local const std::string* loadingFile;
    static std::atomic<std::terminate_handler> terminateBefore;

    const std::string* _outer; ///< an initialiser may load further modules
};

thread_local const std::string* NamesWhatThrows::loadingFile = nullptr;
std::atomic<std::terminate_handler> NamesWhatThrows::terminateBefore{nullptr};

} // namespace

std::vector<std::string> DynamicLibrary::getCandidates(const std::string& name) const {
    if (name.find('/') != std::string::npos)
        return {name};
    const std::string file = toFileName(name);
    std::vector<std::string> candidates;
    const auto add = [&candidates](const std::string& candidate) {
        if (std::find(candidates.begin(), candidates.end(), candidate) == candidates.end())
            candidates.push_back(candidate);
    };
    const std::string program = getFolder(ProcFs::readExecutable("self"));
    if (!program.empty()) {
        add(program + "/" + file);
        add(getFolder(program) + "/lib/" + file);
    }
    if (const std::string own = getOwnFolder(); !own.empty())
        add(own + "/" + file);
    add(file);
    return candidates;
}

DynamicLibrary::LoadResult DynamicLibrary::load(const std::string& name, Visibility visibility) {
    LoadResult result;
    if (name.empty() || name.find('\0') != std::string::npos) {
        result.error = "A module needs a name";
        return result;
    }
    const int mode = RTLD_NOW | (visibility == GLOBAL ? RTLD_GLOBAL : RTLD_LOCAL);
    result.error = "Couldn't load the module " + name + ":";
    for (const std::string& candidate : getCandidates(name)) {
        const bool isPath = candidate.find('/') != std::string::npos;
        ::dlerror(); // forgets an older reason
        {
            const NamesWhatThrows loading(candidate);
            result.handle = ::dlopen(candidate.c_str(), mode);
        }
        if (result.handle != nullptr) {
            result.path = getLoadedPath(result.handle, candidate);
            result.error.clear();
            return result;
        }
        const std::string reason = getReason(candidate);
        result.error.append("\n  ").append(candidate);
        result.error.append(isPath ? ": " : " (search path of the loader): ").append(reason);
        // A file that is there but can't be loaded is the one that was meant: another would be a surprise.
        if (isPath && ::access(candidate.c_str(), F_OK) == 0)
            break;
    }
    return result;
}

void* DynamicLibrary::findSymbol(void* handle, const std::string& name) const {
    return handle != nullptr ? ::dlsym(handle, name.c_str()) : nullptr;
}

bool DynamicLibrary::isLoaded(const std::string& name) const {
    const std::string file = name.find('/') != std::string::npos ? name : toFileName(name);
    struct Search {
        const std::string& name; ///< as given: a library may bear it without any ending of ours
        const std::string& file;
    } search{name, file};
    return ::dl_iterate_phdr(
               [](dl_phdr_info* info, std::size_t, void* data) {
                   const auto& wanted = *static_cast<const Search*>(data);
                   const std::string path = info->dlpi_name != nullptr ? info->dlpi_name : "";
                   const std::string base = getFileName(path);
                   return path == wanted.file || base == wanted.file || base == wanted.name ? 1 : 0;
               },
               &search) != 0;
}

std::string DynamicLibrary::unload(void* handle) {
    if (handle == nullptr)
        return "No module to unload";
    return ::dlclose(handle) == 0 ? std::string() : takeLoaderError();
}

DynamicLibrary& dynamiclibrary() {
    static DynamicLibrary service;
    return service;
}

} // namespace Platform
