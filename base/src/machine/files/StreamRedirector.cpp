#include "machine/StreamRedirector.h"

#include "kernel/Raise.h"
#include "platform/FileSystem.h"
#include "platform/Io.h"
#include "platform/StringHelper.h"

#include <cerrno>
#include <cstring>

namespace {

constexpr int NO_DESCRIPTOR = -1;

/// The error of the system call that failed just now.
SystemError failureOf(const std::string& what, int descriptor) {
    return SystemError("Could not " + what + " the descriptor " + std::to_string(descriptor) + ": " +
                       std::strerror(errno));
}

} // namespace

StreamRedirector::StreamRedirector(FILE* stream, const std::wstring& path)
    : _stream(stream), _fileDescriptor(Platform::io().getDescriptor(stream)) {
    redirectToFile(path);
}

StreamRedirector::StreamRedirector(FILE* stream, const int& descriptor)
    : _stream(stream), _fileDescriptor(Platform::io().getDescriptor(stream)) {
    redirect(descriptor);
}

StreamRedirector::~StreamRedirector() {
    restore();
}

void StreamRedirector::setRestoreDescriptor(int descriptor) {
    const int duplicate = Platform::io().duplicate(descriptor);
    if (duplicate == NO_DESCRIPTOR)
        raise(failureOf("duplicate", descriptor));
    if (_restoreDescriptor != NO_DESCRIPTOR)
        static_cast<void>(Platform::io().close(_restoreDescriptor));
    _restoreDescriptor = duplicate;
}

void StreamRedirector::redirectToFile(const std::wstring& path) {
    const std::string narrowPath = Platform::filesystem().toSystem(Platform::filesystem().getFilePath(path));
    FILE* file = std::fopen(narrowPath.c_str(), "we");
    if (file == nullptr)
        raise(SystemError("Could not open file: " + StringHelper::toString(path) + ": " +
                          std::strerror(errno)));
    try {
        redirect(Platform::io().getDescriptor(file));
    } catch (...) {
        std::fclose(file);
        throw;
    }
    // Nothing was written through it; the stream's descriptor keeps the file open.
    std::fclose(file);
}

void StreamRedirector::redirect(int descriptor) {
    // Text so far belongs to the old place of the stream. A stream that can't take it has lost it anyway.
    std::fflush(_stream);
    _restoreDescriptor = Platform::io().duplicate(_fileDescriptor);
    // A stream that was closed is closed again in the end; everything else is a failure.
    if (_restoreDescriptor == NO_DESCRIPTOR && errno != EBADF)
        raise(failureOf("duplicate", _fileDescriptor));
    if (!Platform::io().duplicateOver(descriptor, _fileDescriptor)) {
        const SystemError error = failureOf("redirect", _fileDescriptor);
        if (_restoreDescriptor != NO_DESCRIPTOR)
            static_cast<void>(Platform::io().close(_restoreDescriptor));
        raise(error);
    }
}

void StreamRedirector::restore() {
    // A destructor can't tell of a failure, and there is no other way.
    std::fflush(_stream);
    if (_restoreDescriptor == NO_DESCRIPTOR) {
        static_cast<void>(Platform::io().close(_fileDescriptor));
        return;
    }
    static_cast<void>(Platform::io().duplicateOver(_restoreDescriptor, _fileDescriptor));
    static_cast<void>(Platform::io().close(_restoreDescriptor));
}
