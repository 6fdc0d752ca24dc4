#pragma once

#include "kernel/KernelExport.h"

#include <array>
#include <optional>
#include <string>
#include <string_view>

/// The secret of a session, 256 random bits, and what is proved with it.
///
/// Both sides of a connection show that they hold the key by HMAC-SHA256 over the server's nonce, the
/// client's nonce and the prover's role; the key itself stays where it is.
class ORVEX_KERNEL_EXPORT SessionKey {
public:
    static constexpr std::size_t SIZE = 32; ///< of a key, a nonce and a proof [bytes]

    /// A fresh one. @throw SystemError when the system has no random numbers
    static SessionKey generate();
    /// From 64 hexadecimal digits; none when `hex` is anything else.
    static std::optional<SessionKey> fromHex(std::string_view hex);
    std::string toHex() const;

    /// A value that is used once, as 64 hexadecimal digits.
    static std::string makeNonce();
    static bool isNonce(std::string_view text);

    /// The proof of a prover in `role`, as 64 hexadecimal digits.
    std::string prove(std::string_view role, std::string_view serverNonce,
                      std::string_view clientNonce) const;
    /// In a time that doesn't depend on where `proof` differs.
    bool verify(std::string_view proof, std::string_view role, std::string_view serverNonce,
                std::string_view clientNonce) const;

private:
    using Bytes = std::array<unsigned char, SIZE>;
    explicit SessionKey(const Bytes& bytes) : _bytes(bytes) {}

    Bytes _bytes;
};
