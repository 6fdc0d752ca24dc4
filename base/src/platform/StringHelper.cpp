#include "platform/StringHelper.h"

#include <cwctype>
#include <locale.h>
#include <optional>

static_assert(sizeof(wchar_t) == 4, "a wide character is a Unicode code point here");

namespace {

constexpr char32_t REPLACEMENT = 0xFFFD;
constexpr char32_t LARGEST = 0x10FFFF;

constexpr bool isSurrogate(char32_t code) {
    return code >= 0xD800 && code <= 0xDFFF;
}

void appendUtf8(std::string& text, char32_t code) {
    if (code > LARGEST || isSurrogate(code))
        code = REPLACEMENT;
    const auto put = [&text](char32_t byte) { text.push_back(static_cast<char>(byte)); };
    const auto putTail = [&put, code](unsigned shift) { put(0x80 | ((code >> shift) & 0x3F)); };
    if (code < 0x80) {
        put(code);
    } else if (code < 0x800) {
        put(0xC0 | (code >> 6));
        putTail(0);
    } else if (code < 0x10000) {
        put(0xE0 | (code >> 12));
        putTail(6);
        putTail(0);
    } else {
        put(0xF0 | (code >> 18));
        putTail(12);
        putTail(6);
        putTail(0);
    }
}

/// One character of UTF-8 text, or the longest beginning of one that isn't whole.
struct Sequence {
    char32_t code;
    std::size_t length;
    bool valid;
};

/// The meaning of the first byte of a sequence: how many follow, its bits, and the range of the second byte,
/// which shuts out overlong forms, surrogates and numbers beyond Unicode.
struct Lead {
    std::size_t tail;
    char32_t bits;
    unsigned char low = 0x80;
    unsigned char high = 0xBF;
};

std::optional<Lead> readLead(unsigned char byte) {
    if (byte < 0x80)
        return Lead{0, byte};
    if (byte >= 0xC2 && byte <= 0xDF)
        return Lead{1, byte & 0x1Fu};
    if (byte >= 0xE0 && byte <= 0xEF)
        return Lead{2, byte & 0x0Fu, static_cast<unsigned char>(byte == 0xE0 ? 0xA0 : 0x80),
                    static_cast<unsigned char>(byte == 0xED ? 0x9F : 0xBF)};
    if (byte >= 0xF0 && byte <= 0xF4)
        return Lead{3, byte & 0x07u, static_cast<unsigned char>(byte == 0xF0 ? 0x90 : 0x80),
                    static_cast<unsigned char>(byte == 0xF4 ? 0x8F : 0xBF)};
    return std::nullopt;
}

/// `text` isn't empty.
Sequence readSequence(std::string_view text) {
    const auto lead = readLead(static_cast<unsigned char>(text[0]));
    if (!lead)
        return {REPLACEMENT, 1, false};
    char32_t code = lead->bits;
    for (std::size_t i = 1; i <= lead->tail; ++i) {
        const unsigned char byte = i < text.size() ? static_cast<unsigned char>(text[i]) : 0;
        if (byte < (i == 1 ? lead->low : 0x80) || byte > (i == 1 ? lead->high : 0xBF))
            return {REPLACEMENT, i, false};
        code = (code << 6) | (byte & 0x3Fu);
    }
    return {code, lead->tail + 1, true};
}

/// Case mapping that doesn't follow the locale of the process.
locale_t getUnicodeLocale() {
    static const locale_t locale = ::newlocale(LC_CTYPE_MASK, "C.UTF-8", locale_t{});
    return locale;
}

wchar_t mapCase(wchar_t character, bool upper) {
    const wchar_t from = upper ? L'a' : L'A';
    if (static_cast<char32_t>(character) < 0x80)
        return character >= from && character <= from + 25 ? static_cast<wchar_t>(character ^ 0x20)
                                                           : character;
    const locale_t locale = getUnicodeLocale();
    if (locale == locale_t{})
        return character; // a system without Unicode tables: letters beyond ASCII stay
    const auto code = static_cast<std::wint_t>(static_cast<char32_t>(character));
    return static_cast<wchar_t>(upper ? ::towupper_l(code, locale) : ::towlower_l(code, locale));
}

std::wstring mapCase(std::wstring_view text, bool upper) {
    std::wstring result(text);
    for (wchar_t& character : result)
        character = mapCase(character, upper);
    return result;
}

template <class View>
auto split(View text, View separators) {
    using Text = std::basic_string<typename View::value_type>;
    std::vector<Text> pieces;
    std::size_t begin = text.find_first_not_of(separators);
    while (begin != View::npos) {
        const std::size_t end = text.find_first_of(separators, begin);
        pieces.emplace_back(text.substr(begin, end == View::npos ? end : end - begin));
        begin = text.find_first_not_of(separators, end);
    }
    return pieces;
}

/// Characters that mean nothing to any shell, and not the one that begins an encoded character.
bool isPlain(char32_t code) {
    return (code >= 'a' && code <= 'z') || (code >= 'A' && code <= 'Z') || (code >= '0' && code <= '9') ||
           (code != 0 && code < 0x80 &&
            std::string_view("_-./:,+@=").find(static_cast<char>(code)) != std::string_view::npos);
}

constexpr std::size_t SHORT_DIGITS = 4;
constexpr std::size_t LONG_DIGITS = 8;

void appendEncoded(std::string& text, char32_t code) {
    constexpr const char* DIGITS = "0123456789ABCDEF";
    const std::size_t digits = code <= 0xFFFF ? SHORT_DIGITS : LONG_DIGITS;
    text += digits == SHORT_DIGITS ? "%u" : "%U";
    for (std::size_t i = digits; i-- > 0;)
        text.push_back(DIGITS[(code >> (4 * i)) & 0xF]);
}

/// The character that begins at `place` of an encoded text; nothing when none does.
std::optional<char32_t> readEncoded(std::wstring_view text, std::size_t place, std::size_t& length) {
    if (text[place] != L'%' || place + 1 >= text.size())
        return std::nullopt;
    const wchar_t kind = text[place + 1];
    if (kind != L'u' && kind != L'U')
        return std::nullopt;
    const std::size_t digits = kind == L'u' ? SHORT_DIGITS : LONG_DIGITS;
    if (text.size() - place - 2 < digits)
        return std::nullopt;
    char32_t code = 0;
    for (const wchar_t digit : text.substr(place + 2, digits)) {
        const std::size_t value = std::wstring_view(L"0123456789ABCDEF").find(digit);
        if (value == std::wstring_view::npos || code > (LARGEST >> 4))
            return std::nullopt;
        code = (code << 4) | static_cast<char32_t>(value);
    }
    if (code > LARGEST || isSurrogate(code))
        return std::nullopt;
    length = digits + 2;
    return code;
}

constexpr std::size_t MARK_LENGTH = 4;

void appendMark(std::wstring& text, unsigned char byte) {
    constexpr std::wstring_view DIGITS = L"0123456789ABCDEF";
    text += {L'\\', L'x', DIGITS[byte >> 4], DIGITS[byte & 0xF]};
}

/// The byte of the mark that `text` begins with; nothing when it begins with none.
template <class View>
std::optional<unsigned char> readMark(View text) {
    if (text.size() < MARK_LENGTH || text[0] != '\\' || text[1] != 'x')
        return std::nullopt;
    unsigned value = 0;
    for (const auto character : text.substr(2, 2)) {
        const bool isNumeral = character >= '0' && character <= '9';
        if (!isNumeral && (character < 'A' || character > 'F'))
            return std::nullopt;
        value = value * 16 + static_cast<unsigned>(character - (isNumeral ? '0' : 'A' - 10));
    }
    // No other character of ASCII is ever marked: a mark can't hide a separator or a zero.
    if (value < 0x80 && value != '\\')
        return std::nullopt;
    return static_cast<unsigned char>(value);
}

} // namespace

std::string StringHelper::toString(std::wstring_view text) {
    std::string result;
    result.reserve(text.size());
    for (const wchar_t character : text)
        appendUtf8(result, static_cast<char32_t>(character));
    return result;
}

std::wstring StringHelper::toWString(std::string_view text) {
    std::wstring result;
    result.reserve(text.size());
    while (!text.empty()) {
        const Sequence sequence = readSequence(text);
        result.push_back(static_cast<wchar_t>(sequence.code));
        text.remove_prefix(sequence.length);
    }
    return result;
}

std::string StringHelper::toValidUtf8(std::string_view text) {
    return toString(toWString(text));
}

bool StringHelper::isValidUtf8(std::string_view text) {
    while (!text.empty()) {
        const Sequence sequence = readSequence(text);
        if (!sequence.valid)
            return false;
        text.remove_prefix(sequence.length);
    }
    return true;
}

std::wstring StringHelper::fromBytes(std::string_view bytes) {
    std::wstring result;
    result.reserve(bytes.size());
    while (!bytes.empty()) {
        const Sequence sequence = readSequence(bytes);
        if (sequence.valid && !readMark(bytes)) {
            result.push_back(static_cast<wchar_t>(sequence.code));
        } else {
            for (const char byte : bytes.substr(0, sequence.length))
                appendMark(result, static_cast<unsigned char>(byte));
        }
        bytes.remove_prefix(sequence.length);
    }
    return result;
}

std::string StringHelper::toBytes(std::wstring_view text) {
    std::string result;
    result.reserve(text.size());
    while (!text.empty()) {
        const auto byte = readMark(text);
        if (byte)
            result.push_back(static_cast<char>(*byte));
        else
            appendUtf8(result, static_cast<char32_t>(text[0]));
        text.remove_prefix(byte ? MARK_LENGTH : 1);
    }
    return result;
}

std::string StringHelper::toUpper(std::string_view text) {
    return toString(toUpper(toWString(text)));
}

std::wstring StringHelper::toUpper(std::wstring_view text) {
    return mapCase(text, true);
}

std::string StringHelper::toLower(std::string_view text) {
    return toString(toLower(toWString(text)));
}

std::wstring StringHelper::toLower(std::wstring_view text) {
    return mapCase(text, false);
}

std::vector<std::string> StringHelper::tokenize(std::string_view text, std::string_view separators) {
    return split(text, separators);
}

std::vector<std::wstring> StringHelper::tokenize(std::wstring_view text, std::wstring_view separators) {
    return split(text, separators);
}

std::string StringHelper::join(const std::vector<std::string>& pieces, std::string_view separator) {
    std::string result;
    for (std::size_t i = 0; i < pieces.size(); ++i) {
        if (i > 0)
            result += separator;
        result += pieces[i];
    }
    return result;
}

std::string StringHelper::trim(std::string_view text) {
    constexpr std::string_view BLANKS = " \t\r\n\v\f";
    const std::size_t begin = text.find_first_not_of(BLANKS);
    if (begin == std::string_view::npos)
        return {};
    return std::string(text.substr(begin, text.find_last_not_of(BLANKS) - begin + 1));
}

std::string StringHelper::encode(std::string_view text) {
    return encode(toWString(text));
}

std::string StringHelper::encode(std::wstring_view text) {
    std::string result;
    for (const wchar_t character : text) {
        auto code = static_cast<char32_t>(character);
        if (code > LARGEST || isSurrogate(code))
            code = REPLACEMENT;
        if (isPlain(code))
            result.push_back(static_cast<char>(code));
        else
            appendEncoded(result, code);
    }
    return result;
}

std::string StringHelper::decode(std::string_view text) {
    return toString(decode(toWString(text)));
}

std::wstring StringHelper::decode(std::wstring_view text) {
    std::wstring result;
    for (std::size_t place = 0; place < text.size();) {
        std::size_t length = 1;
        const auto code = readEncoded(text, place, length);
        result.push_back(code ? static_cast<wchar_t>(*code) : text[place]);
        place += length;
    }
    return result;
}
