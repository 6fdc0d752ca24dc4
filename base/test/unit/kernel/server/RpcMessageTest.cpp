#include "kernel/server/RpcMessage.h"

#include <gtest/gtest.h>

namespace {

TEST(RpcMessage, FindsTheMembersOfARequest) {
    const std::string line = R"( {"id" : "a\"1", "params":{"path":"/d","n":[1,{"x":2}]} ,"more":[1],)"
                             R"("jsonrpc":"2.0","method":"List\u0044ir"} )";
    RpcMessage message;
    ASSERT_FALSE(message.parse(line));
    EXPECT_EQ(message.method, "ListDir");
    EXPECT_EQ(message.id, R"("a\"1")");
    EXPECT_EQ(message.params, R"({"path":"/d","n":[1,{"x":2}]})");
    EXPECT_TRUE(message.isRequest());

    ASSERT_FALSE(message.parse(R"({"jsonrpc":"2.0","id":18446744073709551616,"result":-1e99})"));
    EXPECT_EQ(message.id, "18446744073709551616");
    EXPECT_EQ(message.result, "-1e99");
    EXPECT_FALSE(message.isRequest());
}

std::string nested(unsigned depth) {
    return "{\"a\":" + std::string(depth - 1, '[') + std::string(depth - 1, ']') + "}";
}

TEST(RpcMessage, RefusesWithReasonAndId) {
    const std::string start = R"({"jsonrpc":"2.0","id":7,)";
    for (const auto& [line, code, text, id] : {
             std::tuple<std::string, int, const char*, const char*>("", RpcFault::PARSE_ERROR, "isn't JSON",
                                                                    ""),
             {R"({"jsonrpc":"2.0","method":"A")", RpcFault::PARSE_ERROR, "At byte 29", ""},
             {start + R"("method":"A"} x)", RpcFault::PARSE_ERROR, "text follows the object at byte 38", "7"},
             {start + "\"method\":\"A\"}" + std::string(1, '\0'), RpcFault::PARSE_ERROR, "text follows", "7"},
             {start + "\"method\":\"\xff\xfe\"}", RpcFault::PARSE_ERROR, "Invalid encoding", "7"},
             {"[" + start + "\"method\":\"A\"}]", RpcFault::INVALID_REQUEST, "Batches", ""},
             {"5", RpcFault::INVALID_REQUEST, "must be an object, not a number", ""},
             {R"({"id":7,"method":"A"})", RpcFault::INVALID_REQUEST, "\"jsonrpc\" is missing", "7"},
             {R"({"jsonrpc":"1.0","method":"A"})", RpcFault::INVALID_REQUEST, "\"jsonrpc\" must be", ""},
             {R"({"jsonrpc":"2.0","id":7})", RpcFault::INVALID_REQUEST, "\"method\" is missing", "7"},
             {start + R"("method":5})", RpcFault::INVALID_REQUEST, "\"method\" must be a text", "7"},
             {start + "\"method\":\"" + std::string(257, 'x') + "\"}", RpcFault::INVALID_REQUEST, "1 to 256",
              "7"},
             {start + R"("method":"A","method":"B"})", RpcFault::INVALID_REQUEST, "twice", "7"},
             {start + R"("method":"A","params":[1]})", RpcFault::INVALID_PARAMS, "not an array", "7"},
             {R"({"jsonrpc":"2.0","id":{},"method":"A"})", RpcFault::INVALID_REQUEST, "\"id\" must be", ""},
             {R"({"id":")" + std::string(127, 'x') + "\"}", RpcFault::INVALID_REQUEST, "128 bytes", ""},
             {start + "\"method\":\"A\",\"params\":" + nested(65) + "}", RpcFault::INVALID_REQUEST,
              "deeper than 64", "7"},
             {start + "\"x\":" + std::string(1 << 20, '[') + "}", RpcFault::INVALID_REQUEST, "deeper than 64",
              "7"},
         }) {
        RpcMessage message;
        const std::optional<RpcFault> fault = message.parse(line);
        ASSERT_TRUE(fault) << line.substr(0, 80);
        EXPECT_EQ(fault->code, code) << fault->message;
        EXPECT_NE(fault->message.find(text), std::string::npos) << fault->message;
        EXPECT_EQ(message.id, id) << line.substr(0, 80);
    }
    RpcMessage message;
    EXPECT_FALSE(message.parse(start + "\"method\":\"A\",\"params\":" + nested(64) + "}"));
    EXPECT_FALSE(message.parse(start + "\"method\":\"" + std::string(256, 'x') + "\"}"));
}

TEST(RpcMessage, ReadsItsOwnText) {
    RpcMessage message;
    const std::string odd = "a\"b\\c\n\t\x01\x7f\xc3\xa4\xf0\x9f\x98\x80";
    std::string line = RpcMessage::request("12", odd, "{}");
    EXPECT_EQ(line.find('\n'), line.size() - 1);
    line.pop_back();
    ASSERT_FALSE(message.parse(line));
    EXPECT_EQ(message.method, odd);
    EXPECT_EQ(message.id, "12");
    EXPECT_EQ(RpcMessage::quote("\xff"), "\"\xef\xbf\xbd\"");
    EXPECT_EQ(RpcMessage::failure({}, {RpcFault::BUSY, "no"}, "{\"a\":1}"),
              "{\"jsonrpc\":\"2.0\",\"id\":null,\"error\":{\"code\":-32003,\"message\":\"no\",\"data\":{"
              "\"a\":1}}}\n");
}

} // namespace
