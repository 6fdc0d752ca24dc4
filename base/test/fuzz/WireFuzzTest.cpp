#include "WireFuzzer.h"

#include "kernel/Properties.h"
#include "kernel/server/RpcMessage.h"
#include "kernel/server/SessionHandshake.h"
#include "kernel/server/SessionRecord.h"
#include "platform/StringHelper.h"
#include "xmlrpc/XmlRpcMessage.h"

#include <gtest/gtest.h>

#include <random>
#include <string>
#include <vector>

namespace {

/// The texts of honest peers: the seeds.
std::vector<std::string> seeds() {
    const SessionKey key = SessionKey::fromHex(std::string(64, '5')).value();
    const SessionHandshake::Greeting greeting{1, "a server", std::string(64, 'a')};
    SessionRecord record;
    record.name = "wing";
    record.pid = 5;
    record.key = key.toHex();
    return {
        greeting.toLine(),
        RpcMessage::request("1", SessionHandshake::AUTHENTICATE,
                            SessionHandshake::answer(greeting, key, std::string(64, 'b'),
                                                     SessionHandshake::Access::COMMANDS, "me")),
        RpcMessage::request("\"x\"", "ListDir",
                            R"({"path":"/d\u00e4\ud83d\ude00","n":[1,-2.5e300,true,null,{"$real":"nan"}]})"),
        RpcMessage::answer("2", R"({"a":{"b":{"c":[[],{},""]}}})") + "\n\r\n" +
            RpcMessage::notification("server.console", R"({"text":"\n"})"),
        RpcMessage::failure("3", {RpcFault::BUSY, "\"\\"}, R"({"Rank":2})"),
        record.toText(),
        std::string(4096, 'x') + "\n" + std::string(4097, 'x') + "\n", // the limit of a line
        Properties(R"({"a":[1,-2.5e-3,true,null,{"$real":"inf"}],"b":{"c":"x\u00e9\ud83d\ude00\n","d":{}}})")
            .toXml(),
        "POST /RPC2?job=1 HTTP/1.1\r\nContent-Length: 3\r\nExpect: 100-continue\r\nX-Orvex-Job: 1\r\n\r\nabc",
        "HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n3\r\nabc\r\n0\r\n\r\n",
        XmlRpc::XmlRpcMessage::writeCall(
            "Echo", XmlRpc::XmlRpcValue::fromXml(
                        "<value><array><data><value>a&#x20AC;&lt;</value><value><base64>AAE=</base64></"
                        "value><value><nil/>"
                        "</value><value><double>-1.5</double></value></data></array></value>")),
        XmlRpc::XmlRpcMessage::writeResult(XmlRpc::XmlRpcValue(true)),
    };
}

/// Changes a text the way faults and attackers do.
std::string mutate(std::string text, std::mt19937& generator) {
    std::vector<std::string> pieces =
        StringHelper::tokenize("{ } [ ] < > & / \" <value> </value> <!-- ]]> &#1; \r\n Content-Length: : , "
                               "\n \\u0000 \\ud800 1e999 - \xff \xc0\x80 \xed\xa0\x80 "
                               "\"jsonrpc\":\"2.0\" null 18446744073709551616",
                               " ");
    pieces.insert(pieces.end(),
                  {std::string(1, 0), std::string(70, '['), std::string(70, '{'), std::string(5000, 'x')});
    const auto below = [&](std::size_t limit) { return limit == 0 ? 0 : generator() % limit; };
    for (std::size_t changes = below(7); changes > 0; --changes) {
        const std::string added[] = {"", pieces[below(pieces.size())], std::string(1, char(below(256))),
                                     text.substr(below(text.size() + 1), below(200))};
        const std::size_t taken[] = {0, 1, 1, below(20), below(10) != 0 ? 1 : text.size()};
        text.replace(below(text.size() + 1), taken[below(5)], added[below(4)]);
    }
    return text;
}

TEST(WireFuzz, MutationsOfHonestTextsKeepThePromises) {
    std::mt19937 generator(47827);
    const std::vector<std::string> honest = seeds();
    std::vector<std::string> pool = honest;
    for (int round = 0; round < 60000; ++round) {
        std::string text = mutate(pool[generator() % pool.size()], generator);
        fuzzWire(reinterpret_cast<const std::uint8_t*>(text.data()), text.size());
        if (text.size() < 20000) // the next mutation may start from this one
            pool.size() < 500 ? pool.push_back(text) : void(pool[honest.size() + generator() % 400] = text);
    }
}

} // namespace
