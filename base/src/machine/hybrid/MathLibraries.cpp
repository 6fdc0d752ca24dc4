#include "machine/hybrid/MathLibraries.h"

#include "platform/LoadedLibraries.h"

#include <omp.h>

#include <algorithm>
#include <cstdint>
#include <utility>

/// How the libraries of a kind are found and asked.
struct MathLibraries::Known {
    const char* file; ///< the file name begins with this
    const char* get;
    const char* set;
    bool isLong = false; ///< the counts are 64-bit numbers
    bool isMkl = false;
    std::vector<std::string> prefixes = {""}; ///< of the symbols, in builds with other names
    std::vector<std::string> suffixes = {""};
};

namespace {

template <class Number>
long call(void* get) {
    return static_cast<long>(reinterpret_cast<Number (*)()>(get)());
}

template <class Number>
void call(void* set, long count) {
    reinterpret_cast<void (*)(Number)>(set)(static_cast<Number>(count));
}

} // namespace

MathLibraries& MathLibraries::getSingleton() {
    static MathLibraries singleton;
    return singleton;
}

void MathLibraries::refresh() {
    // OpenBLAS first: a build on OpenMP changes the count of OpenMP as well.
    static const std::vector<Known> all{
        {"libopenblas",
         "openblas_get_num_threads",
         "openblas_set_num_threads",
         false,
         false,
         {""},
         {"", "64_", "_64"}},
        {"libscipy_openblas",
         "openblas_get_num_threads",
         "openblas_set_num_threads",
         false,
         false,
         {"", "scipy_"},
         {"", "64_", "_64"}},
        {"libblis", "bli_thread_get_num_threads", "bli_thread_set_num_threads", true},
        {"libflexiblas", "flexiblas_get_num_threads", "flexiblas_set_num_threads"},
        {"libmkl_", "mkl_serv_get_max_threads", "mkl_serv_set_num_threads", false, true},
        {"libgomp", "omp_get_max_threads", "omp_set_num_threads"},
        {"libomp", "omp_get_max_threads", "omp_set_num_threads"},
        {"libiomp", "omp_get_max_threads", "omp_set_num_threads"},
    };
    const unsigned long long changes = LoadedLibraries::countChanges();
    if (std::exchange(_changes, changes) == changes)
        return;
    _libraries.clear();
    for (const Known& known : all)
        for (std::unique_ptr<LoadedLibraries::Library>& found : LoadedLibraries::find({known.file})) {
            const std::shared_ptr<const LoadedLibraries::Library> library = std::move(found);
            add(
                known, library->getPath(),
                [&library](const std::string& name) { return library->findSymbol(name); }, library);
        }
    _changes = LoadedLibraries::countChanges(); // with the handles that are kept now
}

void MathLibraries::add(const Known& known, const std::string& path,
                        const std::function<void*(const std::string&)>& find,
                        const std::shared_ptr<const void>& keeper) {
    for (const std::string& prefix : known.prefixes)
        for (const std::string& suffix : known.suffixes) {
            void* const get = find(prefix + known.get + suffix);
            void* const set = find(prefix + known.set + suffix);
            const bool isOurOpenMp = set == reinterpret_cast<void*>(&omp_set_num_threads);
            if (!get || !set || isOurOpenMp ||
                (known.isMkl && std::ranges::any_of(_libraries, &Entry::isMkl))) // MKL comes in several files
                continue;
            using Long = std::int64_t;
            _libraries.push_back(
                {path, known.isMkl, [get, known] { return known.isLong ? call<Long>(get) : call<int>(get); },
                 [set, known](long count) { known.isLong ? call<Long>(set, count) : call<int>(set, count); },
                 keeper});
            return;
        }
}

std::vector<MathLibraries::Count> MathLibraries::getCounts() {
    refresh();
    std::vector<Count> counts;
    for (const Entry& entry : _libraries)
        counts.push_back({entry.library, std::max(1L, entry.get())});
    return counts;
}

int MathLibraries::getMaxThreads() {
    refresh();
    for (const Entry& entry : _libraries)
        if (entry.isMkl)
            return static_cast<int>(entry.get());
    return _own;
}

void MathLibraries::setThreads(int number) {
    refresh();
    _own = number;
    for (const Entry& entry : _libraries)
        entry.set(number);
}

MathLibraries::Saved::Saved() : _own(0) {
    MathLibraries& all = getSingleton();
    all.refresh();
    for (const MathLibraries::Entry& entry : all._libraries)
        _counts.push_back({entry.library, entry.get()});
    _own = all._own;
}

void MathLibraries::Saved::restore() const {
    MathLibraries& all = getSingleton();
    all.refresh();
    all._own = _own;
    for (const MathLibraries::Entry& entry : all._libraries) {
        const auto saved = std::ranges::find(_counts, entry.library, &Entry::library);
        entry.set(saved == _counts.end() ? 1 : saved->threads);
    }
}
