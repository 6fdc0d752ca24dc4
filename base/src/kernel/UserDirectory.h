#pragma once

#include <string>

/// The folder of this user's files of a kind. Private to the kernel.
namespace UserDirectory {

/// The directory "orvex" below the one that the environment names in `variable`, if that is an absolute path,
/// else below `fallback` in the user's home directory; empty when there is neither.
std::wstring find(const std::string& variable, const std::wstring& fallback);

} // namespace UserDirectory
