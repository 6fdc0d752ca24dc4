#include "platform/Io.h"

#include <cerrno>
#include <fcntl.h>
#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

namespace Platform {

std::string Io::getHostName() const {
    // POSIX leaves open whether a name that is cut ends in zero; the last byte here stays zero.
    char name[1025] = {};
    if (::gethostname(name, sizeof name - 1) != 0 || name[0] == '\0')
        return "localhost";
    return name;
}

int Io::getDescriptor(std::FILE* stream) const {
    return stream != nullptr ? ::fileno(stream) : -1;
}

int Io::duplicate(int descriptor) const {
    return ::fcntl(descriptor, F_DUPFD_CLOEXEC, 0);
}

bool Io::duplicateOver(int descriptor, int target) const {
    int result;
    do {
        result = ::dup2(descriptor, target);
    } while (result < 0 && (errno == EINTR || errno == EBUSY));
    return result >= 0;
}

bool Io::close(int descriptor) const {
    return ::close(descriptor) == 0;
}

bool Io::write(int descriptor, const char* data, std::size_t count) const {
    while (count > 0) {
        const ssize_t n = ::write(descriptor, data, count);
        if (n >= 0) {
            data += n;
            count -= static_cast<std::size_t>(n);
        } else if (errno == EAGAIN) {
            // A terminal or pipe shared with a process that made it non-blocking: wait until it takes more.
            pollfd ready{descriptor, POLLOUT, 0};
            if (::poll(&ready, 1, -1) < 0 && errno != EINTR)
                return false;
        } else if (errno != EINTR) {
            return false;
        }
    }
    return true;
}

bool Io::isTerminal(int descriptor) const {
    return ::isatty(descriptor) == 1;
}

bool Io::isSameFile(int one, int other) const {
    struct stat a {};
    struct stat b {};
    return ::fstat(one, &a) == 0 && ::fstat(other, &b) == 0 && a.st_dev == b.st_dev && a.st_ino == b.st_ino;
}

bool Io::openStandardDescriptors() const {
    for (int descriptor = 0; descriptor <= 2; ++descriptor) {
        if (::fcntl(descriptor, F_GETFD) >= 0 || errno != EBADF)
            continue;
        if (::open("/dev/null", O_RDWR) != descriptor) // the lowest number that is free
            return false;
    }
    return true;
}

Io& io() {
    static Io service;
    return service;
}

} // namespace Platform
