#pragma once

#include <string_view>

/// Files that the build put into the program.
namespace ReportAssets {

extern const std::string_view STYLE;      ///< page.css
extern const std::string_view STYLE_HASH; ///< its SHA-256 in hexadecimal digits
extern const std::string_view SCRIPT;     ///< page.js
extern const std::string_view SCRIPT_HASH;

} // namespace ReportAssets
