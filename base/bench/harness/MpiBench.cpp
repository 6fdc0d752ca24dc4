#include "MpiBench.h"

#include "mpiwrapper/OxmMpi.h"

#include <dlfcn.h>

#include <cstdlib>
#include <stdexcept>
#include <string_view>

namespace {

void check(int code, const char* call) {
    if (code == OXM_MPI_SUCCESS)
        return;
    char text[OXM_MPI_MAX_ERROR_STRING] = "";
    int length = 0;
    OXM_MPI_Error_string(code, text, &length); // the text is empty if even that fails
    throw std::runtime_error(std::string(call) + ": " + text);
}
#define CHECK(call) check(call, #call)

void* find(const std::string& name) {
    const std::string path = ORVEX_MODULE_DIRECTORY "/lib" + name + ".so";
    return dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
}

void* load(const std::string& name) {
    void* const library = find(name);
    if (!library)
        throw std::runtime_error(dlerror());
    return library;
}

std::string getModule(const std::string& driver) {
    return driver == "openmpi4" ? "OrvexOpenMpi4" : "OrvexMpich2Ch3";
}

std::string getMpi() {
    char name[OXM_MPI_MAX_LIBRARY_VERSION_STRING] = "";
    char version[OXM_MPI_MAX_LIBRARY_VERSION_STRING] = "";
    int length = 0;
    CHECK(OXM_MPI_Get_mpi_name(name, &length, sizeof name));
    CHECK(OXM_MPI_Get_mpi_version(version, &length, sizeof version));
    return std::string(name) + " " + version;
}

} // namespace

MpiBench::MpiBench(int& argc, char**& argv) {
    for (int i = 1; i + 1 < argc; ++i) {
        const std::string_view word = argv[i];
        if (word == "-mpi")
            _driver = argv[i + 1];
        else if (word == "--rounds")
            _rounds = std::atoi(argv[i + 1]);
        else if (word == "--json")
            _json = argv[i + 1];
        else if (word == "--only")
            _only = argv[i + 1];
    }
    if (_driver != "openmpi4" && _driver != "mpich2")
        throw std::runtime_error("-mpi openmpi4 or -mpi mpich2 is needed");
    if (_rounds < 1)
        throw std::runtime_error("--rounds needs a number above 0");
}

void MpiBench::startWrapper(int& argc, char**& argv) {
    if (OXM_MPI_Initialize(load(getModule(_driver))) != OXM_MPI_SUCCESS ||
        OXM_MPI_Init(&argc, &argv) != OXM_MPI_SUCCESS)
        throw std::runtime_error(OXM_MPI_Get_initialize_error());
}

const RawMpi& MpiBench::raw() const {
    const void* const symbol =
        dlsym(load("OrvexRaw" + getModule(_driver).substr(5)), ORVEX_RAW_MPI_SYMBOL_NAME);
    if (!symbol)
        throw std::runtime_error(dlerror());
    return *static_cast<const RawMpi*>(symbol);
}

const BoostMpi* MpiBench::boost() const {
    void* const library = find("OrvexBoost" + getModule(_driver).substr(5));
    return library ? static_cast<const BoostMpi*>(dlsym(library, ORVEX_BOOST_MPI_SYMBOL_NAME)) : nullptr;
}

BenchHarness MpiBench::makeHarness(const std::string& program) const {
    BenchHarness::Ranks ranks;
    CHECK(OXM_MPI_Comm_rank(OXM_MPI_COMM_WORLD, &ranks.rank));
    CHECK(OXM_MPI_Comm_size(OXM_MPI_COMM_WORLD, &ranks.size));
    ranks.barrier = [] { CHECK(OXM_MPI_Barrier(OXM_MPI_COMM_WORLD)); };
    ranks.broadcast = [](int value) {
        CHECK(OXM_MPI_Bcast(&value, 1, OXM_MPI_INT, 0, OXM_MPI_COMM_WORLD));
        return value;
    };
    return BenchHarness(program + ", " + getMpi(), ranks);
}

void MpiBench::report(BenchHarness& harness) const {
    harness.run(_rounds, _only);
    harness.print(stdout);
    if (!_json.empty())
        harness.writeJson(_json);
}
