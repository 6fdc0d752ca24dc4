#pragma once

#include "kernel/KernelExport.h"
#include "kernel/server/RpcMessage.h"
#include "kernel/server/SessionKey.h"

#include <optional>
#include <string>
#include <string_view>

/// The first exchange on a connection, both sides of it.
///
/// The server greets with a nonce and its versions; the client answers with a nonce of its own and the proof
/// that it holds the session key; the server's result proves the same. Nothing of it can be used a second
/// time.
class ORVEX_KERNEL_EXPORT SessionHandshake {
public:
    static constexpr const char* HELLO = "server.hello";
    static constexpr const char* AUTHENTICATE = "server.authenticate";
    static constexpr std::size_t MAX_NAME_LENGTH = 200; ///< of what a client calls itself [bytes]

    enum class Access {
        COMMANDS, ///< runs commands and reads the console
        CONTROL   ///< only asks and steers the server; no other client keeps it out
    };

    /// The first line of the server.
    struct Greeting {
        unsigned protocol = 0;
        std::string product;
        std::string nonce;

        std::string toLine() const;
        /// None when `message` is no greeting.
        static std::optional<Greeting> fromMessage(const RpcMessage& message);
    };
    /// The rights of a client that is let in.
    struct Admission {
        Access access = Access::COMMANDS;
        std::string client; ///< its own words, fit for a log
        std::string proof;  ///< the server's
    };

    /// The client's answer to `greeting`: the parameters of AUTHENTICATE.
    static std::string answer(const Greeting& greeting, const SessionKey& key, const std::string& nonce,
                              Access access, const std::string& client);
    /// The server's judgement of that answer to the greeting with `nonce`.
    static std::optional<RpcFault> admit(const RpcMessage& request, const SessionKey& key,
                                         const std::string& nonce, Admission& admission);
    /// Whether the server's `result` proves that it holds the key.
    static bool isProven(std::string_view result, const SessionKey& key, const std::string& serverNonce,
                         const std::string& clientNonce);
    /// Why `protocol` can't be spoken, in words that name both sides; empty when it can.
    static std::string compareVersions(unsigned serverProtocol, const std::string& serverProduct,
                                       unsigned clientProtocol, const std::string& clientProduct);
};
