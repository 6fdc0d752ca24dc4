#pragma once

#include <string>

/// What the dynamic loader knows of a module that somebody loaded, by its handle.
namespace DriverModule {

/// Null when the module has no such symbol.
const void* findSymbol(void* library, const char* name);
/// The file that the module came from; a text in words if the loader can't tell.
std::string getFile(void* library);

} // namespace DriverModule
