#include "platform/PrivateFileReader.h"

#include "platform/Descriptor.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace Platform {

namespace {

std::string judge(const struct stat& status) {
    if (!S_ISREG(status.st_mode))
        return "it isn't a regular file";
    if (status.st_uid != ::geteuid())
        return "it belongs to another user (" + std::to_string(status.st_uid) + ")";
    if ((status.st_mode & (S_IRWXG | S_IRWXO)) != 0)
        return "it isn't for this user alone";
    return {};
}

} // namespace

std::unique_ptr<PrivateFileReader> PrivateFileReader::open(const std::string& path, std::string& reason) {
    // Without waiting: what looks like a file may be a pipe without a writer.
    Descriptor file(::open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
    struct stat status {};
    if (!file || ::fstat(file.get(), &status) != 0) {
        reason = errno == ELOOP ? "it is a symbolic link" : std::strerror(errno);
        return nullptr;
    }
    reason = judge(status);
    if (!reason.empty())
        return nullptr;
    return std::unique_ptr<PrivateFileReader>(
        new PrivateFileReader(file.release(), static_cast<std::size_t>(status.st_size)));
}

PrivateFileReader::~PrivateFileReader() {
    ::close(_file);
}

bool PrivateFileReader::read(std::size_t offset, void* target, std::size_t bytes) const {
    for (std::size_t done = 0; done < bytes;) {
        const ssize_t n = ::pread(_file, static_cast<char*>(target) + done, bytes - done,
                                  static_cast<off_t>(offset + done));
        if (n == 0 || (n < 0 && errno != EINTR))
            return false;
        done += n > 0 ? static_cast<std::size_t>(n) : 0;
    }
    return true;
}

} // namespace Platform
