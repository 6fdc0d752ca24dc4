#pragma once

#include "machine/MachineExport.h"

#include <string>

/// The extension of the session (state) file and the messages about it. Local, any thread.
namespace StateFileUtilities {

/// `name` followed by ".sim", always: a name that has the extension gets it a second time.
ORVEX_MACHINE_EXPORT std::wstring appendExtension(const std::wstring& name);

ORVEX_MACHINE_EXPORT std::string getStateFileAlreadyExistsErrorMessage(const std::wstring& path);

/// Why `path` can't be used: a directory stands there, or nothing does.
/// @param creating  whether the file was to be created
ORVEX_MACHINE_EXPORT std::string getStateFileNotFoundErrorMessage(const std::wstring& path, bool creating);

} // namespace StateFileUtilities
