#include "kernel/server/SessionHandshake.h"
#include "kernel/OrvexVersion.h"
#include "kernel/Properties.h"
#include "kernel/server/SessionRecord.h"

#include <gtest/gtest.h>

namespace {

using Access = SessionHandshake::Access;

constexpr char EXPECTED_PROOF[] = "6cb9f03e9bfa00860e286e6e4efe3d9693c850d45e39bf61411e997fc3fc9940";

TEST(SessionKey, ProvesAsTheStandardSays) {
    // HMAC-SHA256 of a known key over known text, computed by another program.
    const auto key = SessionKey::fromHex(std::string(64, '0'));
    ASSERT_TRUE(key);
    const std::string nonce(64, 'a');
    EXPECT_EQ(key->prove("orvex server", nonce, nonce), EXPECTED_PROOF);
    EXPECT_TRUE(key->verify(EXPECTED_PROOF, "orvex server", nonce, nonce));
    EXPECT_FALSE(key->verify(std::string(EXPECTED_PROOF).substr(1), "orvex server", nonce, nonce));
    EXPECT_FALSE(key->verify("", "orvex server", nonce, nonce));
}

TEST(SessionKey, ReadsAndWritesHex) {
    const SessionKey key = SessionKey::generate();
    EXPECT_EQ(SessionKey::fromHex(key.toHex())->toHex(), key.toHex());
    EXPECT_NE(SessionKey::generate().toHex(), key.toHex());
    EXPECT_NE(SessionKey::makeNonce(), SessionKey::makeNonce());
    for (const std::string& bad : {std::string(), std::string(63, 'a'), std::string(65, 'a'),
                                   std::string(64, 'g'), std::string(64, 'A'), std::string(63, 'a') + '\0'}) {
        EXPECT_FALSE(SessionKey::fromHex(bad));
        EXPECT_FALSE(SessionKey::isNonce(bad));
    }
}

class SessionHandshakeTest : public ::testing::Test {
protected:
    SessionHandshake::Greeting greeting() const {
        return {SessionRecord::PROTOCOL_VERSION, "a server", serverNonce};
    }
    /// The server's judgement of a client that says `params`.
    std::optional<RpcFault> judge(const std::string& params,
                                  const std::string& method = "server.authenticate") {
        line = RpcMessage::request("1", method, params);
        line.pop_back();
        RpcMessage message;
        EXPECT_FALSE(message.parse(line));
        return SessionHandshake::admit(message, key, serverNonce, admission);
    }

    const SessionKey key = SessionKey::generate();
    const std::string serverNonce = SessionKey::makeNonce();
    const std::string clientNonce = SessionKey::makeNonce();
    std::string line;
    SessionHandshake::Admission admission;
};

TEST_F(SessionHandshakeTest, LetsInTheHolderOfTheKeyAndProvesItself) {
    for (Access access : {Access::COMMANDS, Access::CONTROL}) {
        ASSERT_FALSE(judge(SessionHandshake::answer(greeting(), key, clientNonce, access, "me\n\x01you")));
        EXPECT_EQ(admission.access, access);
        EXPECT_EQ(admission.client, "me  you");
        const std::string result = "{\"proof\":\"" + admission.proof + "\"}";
        EXPECT_TRUE(SessionHandshake::isProven(result, key, serverNonce, clientNonce));
        EXPECT_FALSE(SessionHandshake::isProven(result, key, clientNonce, serverNonce));
        EXPECT_FALSE(SessionHandshake::isProven("{\"proof\":5}", key, serverNonce, clientNonce));
    }
    ASSERT_FALSE(judge(
        SessionHandshake::answer(greeting(), key, clientNonce, Access::COMMANDS, std::string(5000, 'x'))));
    EXPECT_EQ(admission.client.size(), SessionHandshake::MAX_NAME_LENGTH);
}

TEST_F(SessionHandshakeTest, KeepsOthersOutWithWords) {
    const std::string good = SessionHandshake::answer(greeting(), key, clientNonce, Access::COMMANDS, "me");
    const auto with = [&](const std::string& name, const std::string& value) {
        Properties params{std::string_view(good)};
        params.set(name, value);
        return params.toString();
    };
    Properties otherVersion{std::string_view(good)};
    otherVersion.set("protocol", 99);
    otherVersion.set("product", "orvexctl 9.9");
    SessionHandshake::Greeting other = greeting(); // of another connection
    other.nonce = SessionKey::makeNonce();
    const auto answer = [&](const SessionHandshake::Greeting& greeted, const SessionKey& withKey) {
        return SessionHandshake::answer(greeted, withKey, clientNonce, Access::COMMANDS, "me");
    };
    const std::string wrong = "proof of the session key is wrong";
    for (const auto& [params, code, text] : {
             std::tuple(answer(greeting(), SessionKey::generate()), RpcFault::NOT_AUTHENTICATED, wrong),
             {answer(other, key), RpcFault::NOT_AUTHENTICATED, wrong},
             {with("nonce", SessionKey::makeNonce()), RpcFault::NOT_AUTHENTICATED, wrong},
             {with("access", "control"), RpcFault::NOT_AUTHENTICATED, wrong},
             {with("access", "all"), RpcFault::INVALID_PARAMS, "\"access\" must be"},
             {with("nonce", "short"), RpcFault::INVALID_PARAMS, "64 lower-case"},
             {with("proof", ""), RpcFault::NOT_AUTHENTICATED, wrong},
             {"{}", RpcFault::INVALID_PARAMS, "protocol"},
             {otherVersion.toString(), RpcFault::VERSION_MISMATCH,
              "The server (" + OrvexVersion::getVersionedProductName() +
                  ") speaks protocol 1, the client (orvexctl 9.9) speaks protocol 99"},
         }) {
        const std::optional<RpcFault> fault = judge(params);
        ASSERT_TRUE(fault) << params;
        EXPECT_EQ(fault->code, code) << fault->message;
        EXPECT_NE(fault->message.find(text), std::string::npos) << fault->message;
    }
    EXPECT_EQ(judge(good, "GetHosts")->code, RpcFault::NOT_AUTHENTICATED);
    EXPECT_FALSE(judge(good));
}

} // namespace
