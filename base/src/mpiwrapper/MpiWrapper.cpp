#include "mpiwrapper/MpiDispatch.h"
#include "mpiwrapper/MpiFunctionTable.h"

// The exported functions. A driver's function is one indirect jump away, with the arguments where they are.

#define ORVEX_FORWARD(name, parameters, arguments)                                                           \
    int OXM_MPI_##name parameters {                                                                          \
        return MpiFunctionTable::get(activeMpiFunctions.name) arguments;                                     \
    }
ORVEX_MPI_DRIVER_FUNCTIONS(ORVEX_FORWARD)
ORVEX_MPI_RUNNING_FUNCTIONS(ORVEX_FORWARD)
ORVEX_MPI_FILE_FUNCTIONS(ORVEX_FORWARD)
#undef ORVEX_FORWARD

double OXM_MPI_Wtime() {
    return MpiFunctionTable::get(activeMpiFunctions.Wtime)();
}
double OXM_MPI_Wtick() {
    return MpiFunctionTable::get(activeMpiFunctions.Wtick)();
}
uint64_t OXM_MPI_Get_max_buffer_size() {
    return MpiFunctionTable::get(activeMpiFunctions.Get_max_buffer_size)();
}

int OXM_MPI_Initialize(void* library) {
    return MpiDispatch::getSingleton().initialize(library);
}
int OXM_MPIO_Initialize(void* library) {
    return MpiDispatch::getSingleton().initializeFiles(library);
}
const char* OXM_MPI_Get_initialize_error() {
    return MpiDispatch::getSingleton().getInitializeError();
}
int OXM_MPI_Init(int* argc, char*** argv) {
    return MpiDispatch::getSingleton().init(argc, argv);
}
int OXM_MPI_Finalize() {
    return MpiDispatch::getSingleton().finalize();
}
int OXM_MPI_Error_string(int code, char* text, int* length) {
    return MpiDispatch::getSingleton().errorString(code, text, length);
}
int OXM_MPI_Set_mpi_name(const char* name, int length) {
    return MpiDispatch::getSingleton().setName(name, length);
}
int OXM_MPI_Set_mpi_version(const char* version, int length) {
    return MpiDispatch::getSingleton().setVersion(version, length);
}
int OXM_MPI_Get_mpi_name(char* name, int* length, int capacity) {
    return MpiDispatch::getSingleton().getName(name, length, capacity);
}
int OXM_MPI_Get_mpi_version(char* version, int* length, int capacity) {
    return MpiDispatch::getSingleton().getVersion(version, length, capacity);
}
int OXM_MPI_Enable_trace() {
    return MpiDispatch::getSingleton().setTracing(true);
}
int OXM_MPI_Disable_trace() {
    return MpiDispatch::getSingleton().setTracing(false);
}
