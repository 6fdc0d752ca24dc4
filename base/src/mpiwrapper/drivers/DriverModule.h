#pragma once

#include <string>

/// Answers of the dynamic loader about a loaded module, by its handle.
namespace DriverModule {

/// Null when the module has no such symbol.
const void* findSymbol(void* library, const char* name);
/// The file that the module came from; a text in words if the loader can't tell.
std::string getFile(void* library);

} // namespace DriverModule
