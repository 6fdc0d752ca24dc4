#pragma once

#include "platform/PlatformExport.h"

#include <optional>
#include <string>
#include <string_view>

/// Base64 (RFC 4648, with padding). Wide text is its UTF-8 form.
class ORVEX_PLATFORM_EXPORT Base64Encoder {
public:
    static std::string encode(std::string_view bytes);
    static std::string encode(std::wstring_view text);
    /// The wide text behind `base64`.
    /// @throw std::invalid_argument when it isn't Base64 or not of UTF-8 text: the message says what and
    /// where
    static std::wstring decode(std::string_view base64);
    /// The bytes behind `base64`; nothing when it isn't Base64, then `error` (if given) says what and where.
    static std::optional<std::string> decodeBytes(std::string_view base64, std::string* error = nullptr);
};
