#pragma once

#include "platform/PlatformExport.h"

#include <string>
#include <string_view>
#include <vector>

/// Text. Narrow text is UTF-8 in every locale. An invalid byte becomes U+FFFD, never an exception.
class ORVEX_PLATFORM_EXPORT StringHelper {
public:
    /// Wide to narrow.
    static std::string toString(std::wstring_view text);
    /// Narrow to wide.
    static std::wstring toWString(std::string_view text);
    /// `text` with each invalid sequence replaced by U+FFFD: unchanged when it is valid UTF-8.
    static std::string toValidUtf8(std::string_view text);
    static bool isValidUtf8(std::string_view text);

    /// Any bytes as wide text from which toBytes() makes the same bytes again: as toWString(), but a byte
    /// that isn't UTF-8 becomes "\x" and its two hexadecimal digits in upper case, "\xFF" for example. A
    /// backslash that would read as such a mark becomes "\x5C".
    static std::wstring fromBytes(std::string_view bytes);
    /// The bytes of wide text: UTF-8, and for each mark of fromBytes() the byte that it stands for.
    static std::string toBytes(std::wstring_view text);

    /// Case by Unicode's simple mapping, one character for one.
    static std::string toUpper(std::string_view text);
    static std::wstring toUpper(std::wstring_view text);
    static std::string toLower(std::string_view text);
    static std::wstring toLower(std::wstring_view text);

    /// The non-empty pieces of `text` between any of the characters in `separators`.
    static std::vector<std::string> tokenize(std::string_view text, std::string_view separators = " ");
    static std::vector<std::wstring> tokenize(std::wstring_view text, std::wstring_view separators = L" ");
    static std::string join(const std::vector<std::string>& pieces, std::string_view separator);
    /// Without blanks, tabs and line ends at both ends.
    static std::string trim(std::string_view text);

    /// `text` as one word of printable ASCII that passes a command line, a shell and a remote shell
    /// unchanged: every other character becomes "%u" and four hexadecimal digits, or "%U" and eight.
    static std::string encode(std::string_view text);
    static std::string encode(std::wstring_view text);
    /// The text that encode() was given. Whatever has not the form of encode() stays as it stands.
    static std::string decode(std::string_view text);
    static std::wstring decode(std::wstring_view text);
};
