#include "machine/files/StateFileUtilities.h"

#include "platform/FileSystem.h"
#include "platform/StringHelper.h"

namespace {

constexpr const wchar_t* EXTENSION = L".sim";

} // namespace

std::wstring StateFileUtilities::appendExtension(const std::wstring& name) {
    return name + EXTENSION;
}

std::string StateFileUtilities::getStateFileAlreadyExistsErrorMessage(const std::wstring& path) {
    return "Unable to create a new file " + StringHelper::toString(path) + ".  The file already exists.";
}

std::string StateFileUtilities::getStateFileNotFoundErrorMessage(const std::wstring& path, bool creating) {
    const Platform::FileSystem& filesystem = Platform::filesystem();
    std::string message = creating ? "Cannot create file: " : "Cannot open file: ";
    message += StringHelper::toString(path);
    if (filesystem.isDirectory(path))
        message += ".  File is a directory.\n";
    else if (!filesystem.exists(path))
        message += " (specify -new to create the file)\nServer working directory: '" +
                   StringHelper::toString(filesystem.getCurrentDirectory()) + "'\n";
    return message;
}
