#include "platform/OrvexCommandTokenizer.h"

#include "platform/StringHelper.h"

#include <stdexcept>

namespace {

bool isBlank(wchar_t character) {
    return character == L' ' || character == L'\t' || character == L'\n' || character == L'\r';
}

bool isEscapable(wchar_t character) {
    return character == L'"' || character == L'\'' || character == L'\\';
}

/// Whether the backslash at `place` takes the meaning of the next character away.
bool isEscape(std::wstring_view text, std::size_t place) {
    return text[place] == L'\\' && place + 1 < text.size() && isEscapable(text[place + 1]);
}

/// Whether `word` is a whole quoted word already: the quote that opens it is closed by its last character.
bool isQuoted(std::wstring_view word) {
    if (word.size() < 2 || word.front() != L'"')
        return false;
    std::size_t place = 1;
    while (place < word.size() && word[place] != L'"')
        place += isEscape(word, place) ? 2 : 1;
    return place + 1 == word.size();
}

std::wstring quote(const std::wstring& word) {
    const bool plain = word.find_first_of(L" \t\n\r\"'") == std::wstring::npos && !word.empty();
    if (isQuoted(word))
        return word;
    std::wstring result;
    for (std::size_t i = 0; i < word.size(); ++i) {
        // A backslash stays single where it has no meaning, as in C:\dir.
        const bool mayEscape = word[i] == L'\\' && (i + 1 == word.size() ? !plain : isEscapable(word[i + 1]));
        if (mayEscape || word[i] == L'"')
            result += L'\\';
        result += word[i];
    }
    return plain ? result : L'"' + result + L'"';
}

std::vector<std::wstring> toWide(const std::vector<std::string>& words) {
    std::vector<std::wstring> result;
    result.reserve(words.size());
    for (const std::string& word : words)
        result.push_back(StringHelper::toWString(word));
    return result;
}

} // namespace

std::vector<std::wstring> OrvexCommandTokenizer::tokenize(std::wstring_view text) {
    std::vector<std::wstring> words;
    std::wstring word;
    bool inWord = false;
    wchar_t quoteMark = L'\0';
    for (std::size_t place = 0; place < text.size(); ++place) {
        const wchar_t character = text[place];
        if (quoteMark != L'\'' && isEscape(text, place)) {
            word += text[++place];
            inWord = true;
        } else if (quoteMark != L'\0') {
            if (character == quoteMark)
                quoteMark = L'\0';
            else
                word += character;
        } else if (character == L'"' || character == L'\'') {
            quoteMark = character;
            inWord = true;
        } else if (!isBlank(character)) {
            word += character;
            inWord = true;
        } else if (inWord) {
            words.push_back(std::move(word));
            word.clear();
            inWord = false;
        }
    }
    if (quoteMark != L'\0')
        throw std::invalid_argument("A quote isn't closed in the command line: " +
                                    StringHelper::toString(text));
    if (inWord)
        words.push_back(std::move(word));
    return words;
}

std::vector<std::string> OrvexCommandTokenizer::tokenize(std::string_view text) {
    std::vector<std::string> result;
    for (const std::wstring& word : tokenize(StringHelper::toWString(text)))
        result.push_back(StringHelper::toString(word));
    return result;
}

std::wstring OrvexCommandTokenizer::concatenate(const std::vector<std::wstring>& words) {
    std::wstring result;
    for (std::size_t i = 0; i < words.size(); ++i) {
        if (i > 0)
            result += L' ';
        result += quote(words[i]);
    }
    return result;
}

std::string OrvexCommandTokenizer::concatenate(const std::vector<std::string>& words) {
    return StringHelper::toString(concatenate(toWide(words)));
}
