#include "machine/NativeHandle.h"

#include "kernel/Raise.h"

#include <utility>

NativeHandle::NativeHandle(int fortranHandle, std::string library)
    : _fortranHandle(fortranHandle), _library(std::move(library)) {}

int NativeHandle::forLibrary(const std::string& builtWith) const {
    if (builtWith != _library)
        raise(InputError("The module is built with " + builtWith + ", but the job runs with " + _library));
    return _fortranHandle;
}
