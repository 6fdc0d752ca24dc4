#include "mpiwrapper/drivers/Driver.h"

#include <cerrno>
#include <string_view>
#include <system_error>

// Files and hints.

namespace Driver {

namespace {

struct OpenMode {
    int own;
    int native;
};
constexpr OpenMode OPEN_MODES[] = {
    {OXM_MPI_MODE_CREATE, MPI_MODE_CREATE},
    {OXM_MPI_MODE_RDONLY, MPI_MODE_RDONLY},
    {OXM_MPI_MODE_WRONLY, MPI_MODE_WRONLY},
    {OXM_MPI_MODE_RDWR, MPI_MODE_RDWR},
    {OXM_MPI_MODE_DELETE_ON_CLOSE, MPI_MODE_DELETE_ON_CLOSE},
    {OXM_MPI_MODE_UNIQUE_OPEN, MPI_MODE_UNIQUE_OPEN},
    {OXM_MPI_MODE_EXCL, MPI_MODE_EXCL},
    {OXM_MPI_MODE_APPEND, MPI_MODE_APPEND},
    {OXM_MPI_MODE_SEQUENTIAL, MPI_MODE_SEQUENTIAL},
};

int toNativeMode(int mode) {
    int native = 0;
    for (const OpenMode& row : OPEN_MODES)
        if (mode & row.own)
            native |= row.native;
    return native;
}

bool tellsOfFullDevice(int native) {
    char text[MPI_MAX_ERROR_STRING] = "";
    int length = 0;
    return MPI_Error_string(native, text, &length) == MPI_SUCCESS &&
           std::string_view(text).find(std::generic_category().message(ENOSPC)) != std::string_view::npos;
}

/// For writes of `count` elements. A full device is an error like any other to one MPI, and none at all to
/// another, which writes what fits and says how much that was.
int translateWrite(int native, const MPI_Status& nativeStatus, int count, MPI_Datatype type,
                   OXM_MPI_Status_struct* status) {
    int written = 0;
    const bool isFull = native != MPI_SUCCESS
                            ? tellsOfFullDevice(native)
                            : MPI_Get_count(&nativeStatus, type, &written) == MPI_SUCCESS && written != count;
    const int code = isFull ? refuse(OXM_MPI_ERR_NO_SPACE) : translate(native);
    toStatus(nativeStatus, code, status);
    return code;
}

} // namespace

int File_open(int comm, const char* fileName, int mode, int info, int* file) {
    *file = OXM_MPI_FILE_NULL;
    if (!handles.infos.isNullOrLive(info))
        return refuse(OXM_MPI_ERR_INFO);
    MPI_File native = MPI_FILE_NULL;
    int code = MPI_File_open(handles.comms.get(comm), fileName, toNativeMode(mode), handles.infos.get(info),
                             &native);
    if (code == MPI_SUCCESS)
        code = MPI_File_set_errhandler(native, MPI_ERRORS_RETURN);
    if (code == MPI_SUCCESS && (mode & OXM_MPI_MODE_TRUNCATE)) {
        code = MPI_File_set_size(native, 0); // the same on all ranks, so that all close the file
        if (code != MPI_SUCCESS)
            MPI_File_close(&native); // the first failure is the one to tell
    }
    return translateNew(code, handles.files, native, file);
}

int File_close(int* file) {
    MPI_File native = handles.files.get(*file);
    return translateFree(MPI_File_close(&native), handles.files, file);
}

int File_get_size(int file, OXM_MPI_Offset* size) {
    MPI_Offset native = 0;
    const int code = MPI_File_get_size(handles.files.get(file), &native);
    *size = native;
    return translate(code);
}

int File_get_info(int file, int* info) {
    MPI_Info native = MPI_INFO_NULL;
    const int code = MPI_File_get_info(handles.files.get(file), &native);
    return translateNew(code, handles.infos, native, info);
}

int File_get_position(int file, OXM_MPI_Offset* offset) {
    MPI_Offset native = 0;
    const int code = MPI_File_get_position(handles.files.get(file), &native);
    *offset = native;
    return translate(code);
}

int File_get_byte_offset(int file, OXM_MPI_Offset offset, OXM_MPI_Offset* bytes) {
    MPI_Offset native = 0;
    const int code = MPI_File_get_byte_offset(handles.files.get(file), offset, &native);
    *bytes = native;
    return translate(code);
}

int File_read(int file, void* buffer, int count, int datatype, OXM_MPI_Status_struct* status) {
    MPI_Status native{};
    const int code =
        MPI_File_read(handles.files.get(file), buffer, count, handles.types.get(datatype), &native);
    return translate(code, native, status);
}

int File_write(int file, const void* buffer, int count, int datatype, OXM_MPI_Status_struct* status) {
    MPI_Status native{};
    const MPI_Datatype type = handles.types.get(datatype);
    const int code = MPI_File_write(handles.files.get(file), buffer, count, type, &native);
    return translateWrite(code, native, count, type, status);
}

// Not every MPI refuses an offset before the beginning, so the driver does.

// Open MPI's collective transfers tell of no full device, of no end of the file and of no count: data would
// be lost in silence. Each rank has one block at an offset of its own, so that its independent transfers do
// the same work, and they tell.
#ifdef OPEN_MPI
constexpr auto readAtAll = &MPI_File_read_at;
constexpr auto writeAtAll = &MPI_File_write_at;
#else
constexpr auto readAtAll = &MPI_File_read_at_all;
constexpr auto writeAtAll = &MPI_File_write_at_all;
#endif

int File_read_at(int file, OXM_MPI_Offset offset, void* buffer, int count, int datatype,
                 OXM_MPI_Status_struct* status) {
    if (offset < 0)
        return refuse(OXM_MPI_ERR_ARG, status);
    MPI_Status native{};
    const int code = MPI_File_read_at(handles.files.get(file), offset, buffer, count,
                                      handles.types.get(datatype), &native);
    return translate(code, native, status);
}

int File_write_at(int file, OXM_MPI_Offset offset, const void* buffer, int count, int datatype,
                  OXM_MPI_Status_struct* status) {
    if (offset < 0)
        return refuse(OXM_MPI_ERR_ARG, status);
    MPI_Status native{};
    const MPI_Datatype type = handles.types.get(datatype);
    const int code = MPI_File_write_at(handles.files.get(file), offset, buffer, count, type, &native);
    return translateWrite(code, native, count, type, status);
}

int File_read_at_all(int file, OXM_MPI_Offset offset, void* buffer, int count, int datatype,
                     OXM_MPI_Status_struct* status) {
    if (offset < 0)
        return refuse(OXM_MPI_ERR_ARG, status);
    MPI_Status native{};
    const int code =
        readAtAll(handles.files.get(file), offset, buffer, count, handles.types.get(datatype), &native);
    return translate(code, native, status);
}

int File_write_at_all(int file, OXM_MPI_Offset offset, const void* buffer, int count, int datatype,
                      OXM_MPI_Status_struct* status) {
    if (offset < 0)
        return refuse(OXM_MPI_ERR_ARG, status);
    MPI_Status native{};
    const MPI_Datatype type = handles.types.get(datatype);
    const int code = writeAtAll(handles.files.get(file), offset, buffer, count, type, &native);
    return translateWrite(code, native, count, type, status);
}

int Info_create(int* newInfo) {
    MPI_Info native = MPI_INFO_NULL;
    return translateNew(MPI_Info_create(&native), handles.infos, native, newInfo);
}

int Info_free(int* info) {
    MPI_Info native = handles.infos.get(*info);
    return translateFree(MPI_Info_free(&native), handles.infos, info);
}

int Info_set(int info, const char* key, const char* value) {
    return translate(MPI_Info_set(handles.infos.get(info), key, value));
}

int Info_get(int info, const char* key, int valueLength, char* value, int* flag) {
    *flag = 0;
    return translate(MPI_Info_get(handles.infos.get(info), key, valueLength, value, flag));
}

} // namespace Driver
