#include "platform/MappedFile.h"

#include "platform/Descriptor.h"
#include "platform/Memory.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/statfs.h>
#include <unistd.h>

namespace Platform {

namespace {

constexpr long TMPFS = 0x01021994;
constexpr long RAMFS = static_cast<long>(0x858458f6);

/// @return 0, or the system's error number
int reserve(int file, std::size_t bytes) {
    int code = EINTR;
    while (code == EINTR)
        code = ::posix_fallocate(file, 0, static_cast<off_t>(bytes));
    return code;
}

/// @return null with errno set when it fails
void* map(int file, std::size_t bytes) {
    // The mask of the process may have taken away too much.
    if (::fchmod(file, S_IRUSR | S_IWUSR) != 0)
        return nullptr;
    if (const int code = reserve(file, bytes); code != 0) {
        errno = code;
        return nullptr;
    }
    void* const data = ::mmap(nullptr, bytes, PROT_READ | PROT_WRITE, MAP_SHARED, file, 0);
    if (data == MAP_FAILED)
        return nullptr;
    if (!memory().reservePages(data, bytes)) {
        ::munmap(data, bytes);
        errno = ENOMEM;
        return nullptr;
    }
    return data;
}

} // namespace

std::unique_ptr<MappedFile> MappedFile::create(const std::string& path, std::size_t bytes,
                                               std::string& reason) {
    const Descriptor file(
        ::open(path.c_str(), O_RDWR | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, S_IRUSR | S_IWUSR));
    if (!file) {
        reason = path + " can't be made: " + std::strerror(errno);
        return nullptr;
    }
    void* const data = map(file.get(), bytes);
    if (data == nullptr) {
        reason = path + " can't have " + std::to_string(bytes) + " bytes: " + std::strerror(errno);
        ::unlink(path.c_str()); // it is ours, and nothing is in it
        return nullptr;
    }
    // Older systems can't have the pages given at once. The memory is the file's already.
    for (std::size_t at = 0; at < bytes; at += memory().getPageSize())
        static_cast<volatile char*>(data)[at] = 0;
    return std::unique_ptr<MappedFile>(new MappedFile(data, bytes));
}

MappedFile::~MappedFile() {
    ::munmap(_data, _bytes); // can't fail for what mmap gave
}

bool MappedFile::isMemory(const std::string& folder) {
    struct statfs state {};
    return ::statfs(folder.c_str(), &state) == 0 && (state.f_type == TMPFS || state.f_type == RAMFS);
}

} // namespace Platform
