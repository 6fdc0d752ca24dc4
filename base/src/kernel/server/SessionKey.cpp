#include "kernel/server/SessionKey.h"

#include "kernel/Raise.h"

#include <openssl/crypto.h>
#include <openssl/evp.h>
#include <openssl/hmac.h>
#include <openssl/rand.h>

namespace {

using Bytes = std::array<unsigned char, SessionKey::SIZE>;

Bytes randomBytes() {
    Bytes bytes;
    if (RAND_bytes(bytes.data(), static_cast<int>(bytes.size())) != 1)
        raise(SystemError("The system gave no random numbers for a session key"));
    return bytes;
}

std::string toHexText(const Bytes& bytes) {
    static constexpr char HEX[] = "0123456789abcdef";
    std::string text;
    text.reserve(2 * bytes.size());
    for (unsigned char byte : bytes) {
        text += HEX[byte >> 4];
        text += HEX[byte & 15];
    }
    return text;
}

int digitValue(char c) {
    if (c >= '0' && c <= '9')
        return c - '0';
    if (c >= 'a' && c <= 'f')
        return c - 'a' + 10;
    return -1;
}

std::optional<Bytes> fromHexText(std::string_view text) {
    Bytes bytes;
    if (text.size() != 2 * bytes.size())
        return std::nullopt;
    for (std::size_t i = 0; i < bytes.size(); ++i) {
        const int high = digitValue(text[2 * i]);
        const int low = digitValue(text[2 * i + 1]);
        if (high < 0 || low < 0)
            return std::nullopt;
        bytes[i] = static_cast<unsigned char>(high << 4 | low);
    }
    return bytes;
}

} // namespace

SessionKey SessionKey::generate() {
    return SessionKey(randomBytes());
}

std::optional<SessionKey> SessionKey::fromHex(std::string_view hex) {
    const std::optional<Bytes> bytes = fromHexText(hex);
    if (!bytes)
        return std::nullopt;
    return SessionKey(*bytes);
}

std::string SessionKey::toHex() const {
    return toHexText(_bytes);
}

std::string SessionKey::makeNonce() {
    return toHexText(randomBytes());
}

bool SessionKey::isNonce(std::string_view text) {
    return fromHexText(text).has_value();
}

std::string SessionKey::prove(std::string_view role, std::string_view serverNonce,
                              std::string_view clientNonce) const {
    // The nonces have one length, so the role at the end can't be mistaken for a part of them.
    std::string text(serverNonce);
    text.append(clientNonce).append(role);
    Bytes digest{};
    unsigned length = 0;
    if (!HMAC(EVP_sha256(), _bytes.data(), static_cast<int>(_bytes.size()),
              reinterpret_cast<const unsigned char*>(text.data()), text.size(), digest.data(), &length) ||
        length != digest.size())
        raise(SystemError("The proof of a session key couldn't be computed"));
    return toHexText(digest);
}

bool SessionKey::verify(std::string_view proof, std::string_view role, std::string_view serverNonce,
                        std::string_view clientNonce) const {
    const std::string expected = prove(role, serverNonce, clientNonce);
    return proof.size() == expected.size() &&
           CRYPTO_memcmp(proof.data(), expected.data(), expected.size()) == 0;
}
