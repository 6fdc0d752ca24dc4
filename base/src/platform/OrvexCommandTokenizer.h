#pragma once

#include "platform/PlatformExport.h"

#include <string>
#include <string_view>
#include <vector>

/// A command line as words and as one text.
///
/// In the text, blanks part the words; double or single quotes hold a word with blanks together; a backslash
/// before a quote or a backslash, outside single quotes, takes its meaning away.
class ORVEX_PLATFORM_EXPORT OrvexCommandTokenizer {
public:
    /// @throw std::invalid_argument when a quote isn't closed
    static std::vector<std::wstring> tokenize(std::wstring_view text);
    static std::vector<std::string> tokenize(std::string_view text);
    /// The words with a blank between. A word that is empty or has a blank or a quote in it goes between
    /// double quotes, so tokenize() gives the words back; one that stands between double quotes already stays
    /// as it is.
    static std::wstring concatenate(const std::vector<std::wstring>& words);
    static std::string concatenate(const std::vector<std::string>& words);
};
