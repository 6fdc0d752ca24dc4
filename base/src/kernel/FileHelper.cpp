#include "kernel/FileHelper.h"

#include "platform/FileSystem.h"

namespace {

/// The start of the name behind the last separator.
std::size_t findName(const std::wstring& path) {
    const std::size_t separator = path.rfind(Platform::filesystem().getSeparator());
    return separator == std::wstring::npos ? 0 : separator + 1;
}

/// The start of the extension; the end of `path` when there is none.
std::size_t findExtension(const std::wstring& path) {
    const std::size_t dot = path.rfind(L'.');
    return dot == std::wstring::npos || dot <= findName(path) ? path.size() : dot;
}

} // namespace

std::wstring FileHelper::stripPath(const std::wstring& path) {
    return path.substr(findName(path));
}

std::wstring FileHelper::stripExtension(const std::wstring& path) {
    return path.substr(0, findExtension(path));
}

std::wstring FileHelper::stripPathAndExtension(const std::wstring& path) {
    return stripPath(stripExtension(path));
}

std::wstring FileHelper::getExtension(const std::wstring& path) {
    return path.substr(findExtension(path));
}
