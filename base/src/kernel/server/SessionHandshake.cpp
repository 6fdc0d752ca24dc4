#include "kernel/server/SessionHandshake.h"

#include "kernel/Error.h"
#include "kernel/OrvexVersion.h"
#include "kernel/Properties.h"
#include "kernel/server/SessionRecord.h"

#include "platform/StringHelper.h"

namespace {

constexpr std::string_view SERVER_ROLE = "orvex server";
constexpr std::string_view COMMANDS = "commands";
constexpr std::string_view CONTROL = "control";

std::string clientRole(std::string_view access) {
    return "orvex client " + std::string(access);
}

/// One line, printable, of bounded length: it goes into logs and to other people's terminals.
std::string tidyName(const std::string& name) {
    std::string tidy = StringHelper::toValidUtf8(name.substr(0, SessionHandshake::MAX_NAME_LENGTH));
    for (char& c : tidy)
        if (static_cast<unsigned char>(c) < 0x20 || c == 0x7F)
            c = ' ';
    return tidy.empty() ? "a client without a name" : tidy;
}

} // namespace

std::string SessionHandshake::Greeting::toLine() const {
    Properties params;
    params.set("protocol", protocol);
    params.set("product", product);
    params.set("nonce", nonce);
    return RpcMessage::notification(HELLO, params.toString());
}

std::optional<SessionHandshake::Greeting> SessionHandshake::Greeting::fromMessage(const RpcMessage& message) {
    if (message.method != HELLO)
        return std::nullopt;
    try {
        const Properties params(message.params);
        Greeting greeting;
        greeting.protocol = params.getUnsignedInt("protocol");
        greeting.product = params.getString("product");
        greeting.nonce = params.getString("nonce");
        return greeting;
    } catch (const Error&) {
        return std::nullopt;
    }
}

std::string SessionHandshake::compareVersions(unsigned serverProtocol, const std::string& serverProduct,
                                              unsigned clientProtocol, const std::string& clientProduct) {
    if (serverProtocol == clientProtocol)
        return {};
    return "The server (" + serverProduct + ") speaks protocol " + std::to_string(serverProtocol) +
           ", the client (" + clientProduct + ") speaks protocol " + std::to_string(clientProtocol) +
           ": use a client of the server's version";
}

std::string SessionHandshake::answer(const Greeting& greeting, const SessionKey& key,
                                     const std::string& nonce, Access access, const std::string& client) {
    const std::string_view accessName = access == Access::CONTROL ? CONTROL : COMMANDS;
    Properties params;
    params.set("protocol", SessionRecord::PROTOCOL_VERSION);
    params.set("product", OrvexVersion::getVersionedProductName());
    params.set("client", client);
    params.set("access", std::string(accessName));
    params.set("nonce", nonce);
    params.set("proof", key.prove(clientRole(accessName), greeting.nonce, nonce));
    return params.toString();
}

std::optional<RpcFault> SessionHandshake::admit(const RpcMessage& request, const SessionKey& key,
                                                const std::string& nonce, Admission& admission) {
    if (request.method != AUTHENTICATE || request.id.empty())
        return RpcFault{RpcFault::NOT_AUTHENTICATED,
                        "The session key must be proved first: expected a request \"" +
                            std::string(AUTHENTICATE) + "\", got " +
                            RpcMessage::quote(tidyName(request.method))};
    try {
        const Properties params(request.params.empty() ? std::string_view("{}") : request.params);
        const unsigned protocol = params.getUnsignedInt("protocol");
        const std::string mismatch =
            compareVersions(SessionRecord::PROTOCOL_VERSION, OrvexVersion::getVersionedProductName(),
                            protocol, tidyName(params.getString("product")));
        if (!mismatch.empty())
            return RpcFault{RpcFault::VERSION_MISMATCH, mismatch};
        const std::string access = params.getString("access");
        const std::string clientNonce = params.getString("nonce");
        if (access != COMMANDS && access != CONTROL)
            return RpcFault{RpcFault::INVALID_PARAMS, "\"access\" must be \"commands\" or \"control\""};
        if (!SessionKey::isNonce(clientNonce))
            return RpcFault{RpcFault::INVALID_PARAMS, "\"nonce\" must be 64 lower-case hexadecimal digits"};
        if (!key.verify(params.getString("proof"), clientRole(access), nonce, clientNonce))
            return RpcFault{RpcFault::NOT_AUTHENTICATED, "The proof of the session key is wrong"};
        admission.access = access == CONTROL ? Access::CONTROL : Access::COMMANDS;
        admission.client = tidyName(params.getString("client"));
        admission.proof = key.prove(SERVER_ROLE, nonce, clientNonce);
        return std::nullopt;
    } catch (const RecoverableError& error) {
        return RpcFault{RpcFault::INVALID_PARAMS, error.what()};
    }
}

bool SessionHandshake::isProven(std::string_view result, const SessionKey& key,
                                const std::string& serverNonce, const std::string& clientNonce) {
    try {
        return key.verify(Properties(result).getString("proof"), SERVER_ROLE, serverNonce, clientNonce);
    } catch (const RecoverableError&) {
        return false;
    }
}
