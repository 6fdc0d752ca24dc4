#include "mpiwrapper/MpiDispatch.h"

#include "mpiwrapper/MpiErrorText.h"
#include "mpiwrapper/MpiFunctionTable.h"
#include "mpiwrapper/MpiTrace.h"
#include "mpiwrapper/drivers/DriverModule.h"

#include <algorithm>
#include <chrono>
#include <cstdarg>
#include <cstddef>
#include <cstdio>
#include <cstring>
#include <string>
#include <type_traits>

namespace {

/// Stands in the place of a function that can't be served: it does nothing but return its code.
template <int code, class Function>
struct Refusal;
template <int code, class... Arguments>
struct Refusal<code, int (*)(Arguments...)> {
    static int call(Arguments...) { return code; }
};

template <class Function>
Function getRefusalFunction(int code) {
    switch (code) {
    case OXM_MPI_ERR_NOT_RUNNING:
        return &Refusal<OXM_MPI_ERR_NOT_RUNNING, Function>::call;
    case OXM_MPI_ERR_NO_FUNCTION:
        return &Refusal<OXM_MPI_ERR_NO_FUNCTION, Function>::call;
    case OXM_MPI_ERR_NO_PARALLEL_IO:
        return &Refusal<OXM_MPI_ERR_NO_PARALLEL_IO, Function>::call;
    default:
        return &Refusal<OXM_MPI_ERR_NO_DRIVER, Function>::call;
    }
}

double noClock() {
    return 0.0;
}

/// After the end the clock goes on where the MPI's stopped, so that an interval across the end comes out
/// right.
std::atomic<double> clockOffset = 0.0;
double readOwnClock() {
    return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch()).count();
}
double readClosedClock() {
    return readOwnClock() + clockOffset;
}
double getOwnTick() {
    using Period = std::chrono::steady_clock::period;
    return static_cast<double>(Period::num) / static_cast<double>(Period::den);
}
uint64_t noBufferSize() {
    return 0;
}

/// The functions of a process that has loaded no driver.
constexpr MpiDriverFunctions getFunctionsWithoutDriver() {
    MpiDriverFunctions functions;
#define ORVEX_REFUSE(code, name) functions.name = &Refusal<code, decltype(functions.name)>::call;
#define ORVEX_REFUSE_DRIVER(name, parameters, arguments) ORVEX_REFUSE(OXM_MPI_ERR_NO_DRIVER, name)
#define ORVEX_REFUSE_FILE(name, parameters, arguments) ORVEX_REFUSE(OXM_MPI_ERR_NO_PARALLEL_IO, name)
    ORVEX_MPI_START_FUNCTIONS(ORVEX_REFUSE_DRIVER)
    ORVEX_MPI_DRIVER_FUNCTIONS(ORVEX_REFUSE_DRIVER)
    ORVEX_MPI_RUNNING_FUNCTIONS(ORVEX_REFUSE_DRIVER)
    ORVEX_MPI_FILE_FUNCTIONS(ORVEX_REFUSE_FILE)
#undef ORVEX_REFUSE_FILE
#undef ORVEX_REFUSE_DRIVER
#undef ORVEX_REFUSE
    functions.Wtime = &noClock;
    functions.Wtick = &noClock;
    functions.Get_max_buffer_size = &noBufferSize;
    return functions;
}

} // namespace

constinit MpiDriverFunctions activeMpiFunctions = getFunctionsWithoutDriver();

MpiDispatch& MpiDispatch::getSingleton() {
    static constinit MpiDispatch dispatch;
    return dispatch;
}

int MpiDispatch::refuse(int code, const char* format, ...) {
    va_list arguments;
    va_start(arguments, format);
    std::vsnprintf(_initializeError, sizeof _initializeError, format, arguments);
    va_end(arguments);
    return code;
}

int MpiDispatch::examine(void* library, const MpiDriver*& driver) {
    _initializeError[0] = '\0';
    if (!library)
        return refuse(OXM_MPI_ERR_BAD_DRIVER, "No library was given to take an MPI driver from");
    const std::string file = DriverModule::getFile(library);
    driver = static_cast<const MpiDriver*>(DriverModule::findSymbol(library, ORVEX_MPI_DRIVER_SYMBOL_NAME));
    if (!driver)
        return refuse(OXM_MPI_ERR_BAD_DRIVER, "%s isn't an MPI driver: it has no symbol \"%s\"", file.c_str(),
                      ORVEX_MPI_DRIVER_SYMBOL_NAME);
    if (driver->abiVersion != MpiDriver::ABI_VERSION)
        return refuse(OXM_MPI_ERR_BAD_DRIVER,
                      "%s is an MPI driver with interface version %u, but version %u is needed", file.c_str(),
                      driver->abiVersion, MpiDriver::ABI_VERSION);
    if (driver->functionsSize != sizeof(MpiDriverFunctions))
        return refuse(OXM_MPI_ERR_BAD_DRIVER,
                      "%s is an MPI driver with another list of functions (%u bytes instead of %zu)",
                      file.c_str(), driver->functionsSize, sizeof(MpiDriverFunctions));
    const MpiDriverFunctions& functions = driver->functions;
    if (!functions.Init || !functions.Wtime || !functions.Wtick || !functions.Error_string ||
        !functions.Get_max_buffer_size || !functions.getLibraryName)
        return refuse(OXM_MPI_ERR_BAD_DRIVER, "%s is an MPI driver that lacks an indispensable function",
                      file.c_str());
    return OXM_MPI_SUCCESS;
}

int MpiDispatch::initialize(void* library) {
    const MpiDriver* driver = nullptr;
    if (const int code = examine(library, driver))
        return code;
    if (_phase == Phase::RUNNING) {
        if (driver == _driver)
            return OXM_MPI_SUCCESS;
        return refuse(OXM_MPI_ERR_BAD_DRIVER, "%s can't replace an MPI driver that runs",
                      DriverModule::getFile(library).c_str());
    }
    _driver = driver;
    _phase = Phase::LOADED;
    _hasFiles = false;
    // NOLINTNEXTLINE(clang-analyzer-core.NullDereference) examine() found one
    driver->functions.getLibraryName(_name, _version);
    updateActiveFunctions();
    return OXM_MPI_SUCCESS;
}

int MpiDispatch::initializeFiles(void* library) {
    const MpiDriver* driver = nullptr;
    if (const int code = examine(library, driver))
        return code;
    const std::string file = DriverModule::getFile(library);
    if (driver != _driver)
        return refuse(OXM_MPI_ERR_NO_DRIVER, "%s isn't the MPI driver that was initialised", file.c_str());
    // NOLINTNEXTLINE(clang-analyzer-core.NullDereference) examine() found one
    if (!driver->functions.File_open)
        return refuse(OXM_MPI_ERR_NO_PARALLEL_IO, "%s is an MPI driver without parallel files", file.c_str());
    _hasFiles = true;
    updateActiveFunctions();
    return OXM_MPI_SUCCESS;
}

int MpiDispatch::init(int* argc, char*** argv) {
    _initializeError[0] = '\0';
    if (_phase == Phase::RUNNING)
        return refuse(OXM_MPI_ERR_OTHER, "MPI runs already");
    if (_phase == Phase::CLOSED)
        return refuse(OXM_MPI_ERR_NOT_RUNNING, "MPI was finalized and can't start again");
    if (const int code = activeMpiFunctions.Init(argc, argv)) {
        Text text;
        int length = 0;
        static_cast<void>(errorString(code, text, &length)); // it has an answer for every code
        return refuse(code, "%.*s", length, text);
    }
    _phase = Phase::RUNNING;
    updateActiveFunctions();
    return OXM_MPI_SUCCESS;
}

int MpiDispatch::finalize() {
    if (_phase != Phase::RUNNING)
        return _phase == Phase::NO_DRIVER ? OXM_MPI_ERR_NO_DRIVER : OXM_MPI_ERR_NOT_RUNNING;
    // Other threads may read the clock at any time, also while the MPI ends.
    clockOffset = activeMpiFunctions.Wtime() - readOwnClock();
    MpiFunctionTable::set(activeMpiFunctions.Wtime, &readClosedClock);
    MpiFunctionTable::set(activeMpiFunctions.Wtick, &getOwnTick);
    const int code = activeMpiFunctions.Finalize();
    // Closed also when finalizing failed: an MPI that failed there can't be asked anything more.
    _phase = Phase::CLOSED;
    updateActiveFunctions();
    return code;
}

int MpiDispatch::getRefusal(bool needsRunning, bool isFile) const {
    if (_phase == Phase::NO_DRIVER)
        return isFile ? OXM_MPI_ERR_NO_PARALLEL_IO : OXM_MPI_ERR_NO_DRIVER;
    if (isFile && !_hasFiles)
        return OXM_MPI_ERR_NO_PARALLEL_IO;
    return needsRunning && _phase != Phase::RUNNING ? OXM_MPI_ERR_NOT_RUNNING : OXM_MPI_SUCCESS;
}

void MpiDispatch::updateActiveFunctions() {
    MpiDriverFunctions next = _driver.load()->functions;
    const auto fill = [](auto& function, int refusal) {
        using Function = std::remove_reference_t<decltype(function)>;
        if (refusal || !function)
            function = getRefusalFunction<Function>(refusal ? refusal : OXM_MPI_ERR_NO_FUNCTION);
    };
    const int loaded = getRefusal(false, false);
    const int running = getRefusal(true, false);
    const int file = getRefusal(true, true);
#define ORVEX_FILL_LOADED(name, parameters, arguments) fill(next.name, loaded);
#define ORVEX_FILL_RUNNING(name, parameters, arguments) fill(next.name, running);
#define ORVEX_FILL_FILE(name, parameters, arguments) fill(next.name, file);
    ORVEX_MPI_START_FUNCTIONS(ORVEX_FILL_LOADED)
    ORVEX_MPI_DRIVER_FUNCTIONS(ORVEX_FILL_LOADED)
    ORVEX_MPI_RUNNING_FUNCTIONS(ORVEX_FILL_RUNNING)
    ORVEX_MPI_FILE_FUNCTIONS(ORVEX_FILL_FILE)
#undef ORVEX_FILL_FILE
#undef ORVEX_FILL_RUNNING
#undef ORVEX_FILL_LOADED
    if (_phase == Phase::LOADED) {
        next.Wtime = &noClock;
        next.Wtick = &noClock;
    } else if (_phase == Phase::CLOSED) {
        next.Wtime = &readClosedClock;
        next.Wtick = &getOwnTick;
    }
    int rank = -1;
    if (_phase == Phase::RUNNING && next.Comm_rank(OXM_MPI_COMM_WORLD, &rank) != OXM_MPI_SUCCESS)
        rank = -1;
    MpiFunctionTable::set(activeMpiFunctions, _isTracing ? MpiTrace::getTraced(next, rank) : next);
}

int MpiDispatch::setTracing(bool on) {
    if (_phase == Phase::NO_DRIVER)
        return OXM_MPI_ERR_NO_DRIVER;
    _isTracing = on;
    updateActiveFunctions();
    return OXM_MPI_SUCCESS;
}

int MpiDispatch::errorString(int code, char* text, int* length) const {
    if (!text || !length)
        return OXM_MPI_ERR_ARG;
    const MpiDriver* const driver = _driver;
    const bool isDrivers = (_phase == Phase::RUNNING && code >= 0 && code < OXM_MPI_ERR_NO_DRIVER) ||
                           (driver && code == OXM_MPI_ERR_LAUNCHER);
    if (isDrivers && driver->functions.Error_string(code, text, length) == OXM_MPI_SUCCESS)
        return OXM_MPI_SUCCESS;
    const char* const words = mpiErrorText(code);
    *length = words ? std::snprintf(text, OXM_MPI_MAX_ERROR_STRING, "%s", words)
                    : std::snprintf(text, OXM_MPI_MAX_ERROR_STRING, "Unknown error code %d", code);
    return OXM_MPI_SUCCESS;
}

int MpiDispatch::store(Text& text, const char* value, int length) {
    if (!value || length < 0)
        return OXM_MPI_ERR_ARG;
    const std::size_t count = strnlen(value, std::min(static_cast<std::size_t>(length), sizeof(Text) - 1));
    std::memcpy(text, value, count);
    text[count] = '\0';
    return OXM_MPI_SUCCESS;
}

int MpiDispatch::fetch(const Text& text, char* buffer, int* length, int capacity) {
    if (!buffer || !length || capacity < 1)
        return OXM_MPI_ERR_ARG;
    const std::size_t count = std::min(std::strlen(text), static_cast<std::size_t>(capacity) - 1);
    std::memcpy(buffer, text, count);
    buffer[count] = '\0';
    *length = static_cast<int>(count);
    return OXM_MPI_SUCCESS;
}
