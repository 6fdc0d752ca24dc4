#include "platform/Base64Encoder.h"

#include "platform/StringHelper.h"

#include <array>
#include <cstdint>
#include <stdexcept>

namespace {

constexpr std::string_view ALPHABET = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
constexpr char PADDING = '=';
constexpr std::uint8_t NO_DIGIT = 0xFF;

constexpr std::array<std::uint8_t, 256> DIGITS = [] {
    std::array<std::uint8_t, 256> digits{};
    digits.fill(NO_DIGIT);
    for (std::size_t i = 0; i < ALPHABET.size(); ++i)
        digits[static_cast<unsigned char>(ALPHABET[i])] = static_cast<std::uint8_t>(i);
    return digits;
}();

std::string describe(char character) {
    if (character > ' ' && character < 0x7F)
        return std::string("'") + character + "'";
    return "of code " + std::to_string(static_cast<unsigned>(static_cast<unsigned char>(character)));
}

/// Tells the fault of `base64`; empty when there is none.
std::string findFault(std::string_view base64) {
    if (base64.size() % 4 != 0)
        return "its length, " + std::to_string(base64.size()) + ", is no multiple of 4";
    std::size_t length = base64.size();
    for (int i = 0; i < 2 && length > 0 && base64[length - 1] == PADDING; ++i)
        --length;
    for (std::size_t i = 0; i < length; ++i) {
        if (DIGITS[static_cast<unsigned char>(base64[i])] == NO_DIGIT)
            return "it has the character " + describe(base64[i]) + " at position " + std::to_string(i + 1);
    }
    // Of the last digit, the bits that belong to no byte must be zero: one text for one content.
    const std::size_t padding = base64.size() - length;
    const unsigned unused = padding == 0 ? 0 : padding == 1 ? 0x3 : 0xF;
    if (length > 0 && (DIGITS[static_cast<unsigned char>(base64[length - 1])] & unused) != 0)
        return "its last digit, at position " + std::to_string(length) + ", has bits beyond the last byte";
    return {};
}

} // namespace

std::string Base64Encoder::encode(std::string_view bytes) {
    std::string result;
    result.reserve((bytes.size() + 2) / 3 * 4);
    for (std::size_t i = 0; i < bytes.size(); i += 3) {
        const std::string_view group = bytes.substr(i, 3);
        std::uint32_t bits = 0;
        for (std::size_t k = 0; k < 3; ++k)
            bits = (bits << 8) | (k < group.size() ? static_cast<unsigned char>(group[k]) : 0u);
        for (std::size_t k = 0; k < 4; ++k)
            result.push_back(k <= group.size() ? ALPHABET[(bits >> (18 - 6 * k)) & 0x3F] : PADDING);
    }
    return result;
}

std::string Base64Encoder::encode(std::wstring_view text) {
    return encode(StringHelper::toString(text));
}

std::wstring Base64Encoder::decode(std::string_view base64) {
    std::string error;
    const auto bytes = decodeBytes(base64, &error);
    if (!bytes)
        throw std::invalid_argument("Invalid Base64 text: " + error);
    if (!StringHelper::isValidUtf8(*bytes))
        throw std::invalid_argument("Invalid Base64 text: what it holds isn't UTF-8");
    return StringHelper::toWString(*bytes);
}

std::optional<std::string> Base64Encoder::decodeBytes(std::string_view base64, std::string* error) {
    const std::string fault = findFault(base64);
    if (!fault.empty()) {
        if (error != nullptr)
            *error = fault;
        return std::nullopt;
    }
    std::string result;
    result.reserve(base64.size() / 4 * 3);
    std::uint32_t bits = 0;
    unsigned held = 0;
    for (const char character : base64) {
        if (character == PADDING)
            break;
        bits = (bits << 6) | DIGITS[static_cast<unsigned char>(character)];
        held += 6;
        if (held >= 8) {
            held -= 8;
            result.push_back(static_cast<char>((bits >> held) & 0xFF));
        }
    }
    return result;
}
