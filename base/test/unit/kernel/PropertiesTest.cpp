#include "kernel/Properties.h"

#include "kernel/Error.h"

#include <gtest/gtest.h>

#include <cmath>
#include <functional>
#include <limits>
#include <memory>

namespace {

using Mode = Properties::Mode;

/// The message of the InputError that `operation` raises.
std::string inputError(const std::function<void()>& operation) {
    try {
        operation();
    } catch (const InputError& error) {
        return error.what();
    }
    return "no InputError";
}

Properties throughJson(const Properties& properties) {
    return Properties(properties.toString());
}
Properties throughXml(const Properties& properties) {
    return Properties::fromXml(properties.toXml());
}

Properties nest(unsigned levels) {
    Properties properties;
    properties.set("leaf", 1);
    for (unsigned i = 1; i < levels; ++i) {
        Properties outer;
        outer.set("in", properties);
        properties = outer;
    }
    return properties;
}

} // namespace

TEST(Properties, TextFormsKeepEveryValueAndItsKind) {
    Properties inner, real, doubled;
    inner.set("x", 1.5);
    inner.set("", L"empty key");
    real.set("$real", "nan");
    doubled.set("$$real", 1);
    Properties all;
    all.set("bool", true);
    all.set("int", std::numeric_limits<int>::min());
    all.set("unsigned", std::numeric_limits<unsigned>::max());
    all.set("long", std::numeric_limits<long>::min());
    all.set("unsigned long", std::numeric_limits<unsigned long>::max());
    all.set("long long", std::numeric_limits<long long>::max());
    all.set("unsigned long long", 1ull << 63);
    all.set("zero", -0.0);
    all.set("largest", std::numeric_limits<double>::max());
    all.set("smallest", std::numeric_limits<double>::denorm_min());
    all.set("nan", std::numeric_limits<double>::quiet_NaN());
    all.set("inf", std::vector<double>{HUGE_VAL, -HUGE_VAL, 0.1});
    all.set("text", std::string("a\0b\x01\t\n\r\"\\/\x7f \xE2\x82\xAC", 15));
    all.set("wide", L"\x20AC \x1F600");
    all.set("blank", std::vector<std::string>{"  ", ""});
    all.set(std::string("key\0\x02", 5), std::vector<std::wstring>{L"\x00E4", L""});
    all.set("inner", inner);
    all.set("list", std::vector<Properties>{inner, Properties(), real});
    all.set("real", real);
    all.set("doubled", doubled);
    all.set("marks", std::vector<std::string>{"$real:nan", "$natural:1", "a\r\n", "\xEF\xBF\xBF"});
    all.set("$base64:AA==", 1);
    all.set("bools", std::vector<bool>{true, false});
    all.set("none", std::vector<int>());
    EXPECT_EQ(throughJson(all), all) << all.toString();
    EXPECT_EQ(throughXml(all), all) << all.toXml();
    EXPECT_EQ(Properties(all.toPrettyString()), all);
    EXPECT_EQ(throughJson(real), real); // at the root the key is like any other
    EXPECT_TRUE(std::signbit(throughJson(all).getReal("zero")));
    EXPECT_EQ(throughJson(all).getOrvexString("wide"), L"\x20AC \x1F600");

    EXPECT_EQ(Properties().toString(), "{}");
    EXPECT_EQ(Properties(" {\"a\":null,\"b\":[[1],{}]} ").toString(), "{\"a\":null,\"b\":[[1],{}]}");
    EXPECT_EQ(Properties("{\"x\":[1.5],\"\":\"empty key\"}").toXml(),
              "<struct><member><name>x</name><value><array><data><value><double>1.5</double></value>"
              "</data></array></value></member>"
              "<member><name></name><value><string>empty key</string></value></member></struct></value>");
}

TEST(Properties, GettersConvertWhereNothingIsLost) {
    const std::pair<char, std::function<void(const Properties&)>> all[] = {
        {'i', [](const Properties& p) { p.getInt("k"); }},
        {'u', [](const Properties& p) { p.getUnsignedInt("k"); }},
        {'l', [](const Properties& p) { p.getLong("k"); }},
        {'U', [](const Properties& p) { p.getUnsignedLong("k"); }},
        {'r', [](const Properties& p) { p.getReal("k"); }}};
    using Texts = std::vector<std::string>;
    for (const auto& [getters, texts] :
         {std::pair<std::string, Texts>("iulUr", {"0", "2147483647", "3.0"}),
          {"ulUr", {"2147483648", "4294967295", "2147483648.0"}},
          {"ilr", Texts{"-1", "-2147483648"}},
          {"lr", Texts{"-2147483649", "-9223372036854775808"}},
          {"lUr", Texts{"4294967296", "1e18"}},
          {"lU", Texts{"9007199254740993", "9223372036854775807"}},
          {"Ur", Texts{"9223372036854775808", "9223372036854775808.0"}},
          {"U", Texts{"18446744073709551615"}},
          {"r", {"18446744073709551616", "3.5", "1e300", "{\"$real\":\"nan\"}"}},
          {"", {"true", "\"3\"", "null"}}})
        for (const std::string& text : texts) {
            const Properties properties("{\"k\":" + text + "}");
            std::string working;
            for (const auto& [sign, get] : all)
                if (inputError([&, &ask = get] { ask(properties); }) == "no InputError")
                    working += sign;
            EXPECT_EQ(working, getters) << text;
        }
    EXPECT_EQ(Properties("{\"k\":-3.0}").getInt("k"), -3);
    EXPECT_EQ(Properties("{\"k\":9223372036854775808}").getReal("k"), 0x1p63);
}

TEST(Properties, MessagesNameTheKeyWhatStandsThereAndWhatWasExpected) {
    Properties properties(
        "{\"i\":3000000000,\"r\":1.5,\"t\":\"word\",\"b\":true,\"a\":[1,2,\"x\"],\"o\":{\"k\":1}}");
    properties.set("long", std::string(200, 'x'));
    const std::pair<std::function<void(const Properties&)>, const char*> rows[] = {
        {[](const Properties& p) { p.getInt("i"); },
         "The key \"i\" holds an integer (3000000000), expected an integer from -2147483648 to 2147483647"},
        {[](const Properties& p) { p.getReal("t"); },
         "The key \"t\" holds a text (\"word\"), expected a real number"},
        {[](const Properties& p) { p.getString("b"); },
         "The key \"b\" holds a truth value (true), expected a text"},
        {[](const Properties& p) { p.getProperties("a"); },
         "The key \"a\" holds an array (3 elements), expected an object"},
        {[](const Properties& p) { p.getOrvexString("o"); },
         "The key \"o\" holds an object (1 keys), expected a text"},
        {[](const Properties& p) { p.getBool("none"); },
         "The key \"none\" is missing, expected true or false"},
        {[](const Properties& p) { p.get("a", *std::make_unique<std::vector<int>>()); },
         "The key \"a[2]\" holds a text (\"x\"), expected an integer from -2147483648 to 2147483647"},
        {[](const Properties& p) { p.get("r", *std::make_unique<std::vector<double>>()); },
         "The key \"r\" holds a real number (1.5), expected an array, each element a real number"}};
    for (const auto& [get, message] : rows)
        EXPECT_EQ(inputError([&, &ask = get] { ask(properties); }), message);
    EXPECT_LT(inputError([&] { properties.getInt("long"); }).size(), 200u);
    EXPECT_EQ(properties.getOr("none", 7) + properties.getOr("r", 0.0), 8.5);
    EXPECT_EQ(properties.getOr("t", "other") + properties.getOr("none", "other"), "wordother");
}

TEST(Properties, KeysKeepTheirOrderAndModesTheirWord) {
    Properties properties;
    properties.set("a", 1);
    properties.set("b", 2, Mode::NEW);
    properties.set("a", "one");
    properties.set("b", 3, Mode::KEEP);
    properties.set("c", 4, Mode::KEEP);
    EXPECT_THROW(properties.set("c", 5, Mode::NEW), InternalError);
    EXPECT_EQ(properties.toString(), "{\"a\":\"one\",\"b\":2,\"c\":4}");
    properties.remove("a");
    properties.set("a", properties);
    EXPECT_EQ(properties.toString(), "{\"b\":2,\"c\":4,\"a\":{\"b\":2,\"c\":4}}");
    EXPECT_EQ(properties.getNames(), (std::vector<std::string>{"b", "c", "a"}));
    EXPECT_NE(Properties("{\"a\":1,\"b\":2}"), Properties("{\"b\":2,\"a\":1}"));
    EXPECT_NE(Properties("{\"a\":1}"), Properties("{\"a\":1.0}"));
    Properties copy = properties;
    const Properties moved = std::move(properties);
    EXPECT_TRUE(properties.empty()); // NOLINT: a moved-from object is empty and usable
    EXPECT_EQ(copy, moved);
    copy.merge(Properties("{\"n\":[{}],\"b\":3}"));
    copy.merge(Properties("{\"b\":4}"), Mode::KEEP);
    EXPECT_EQ(copy.toString(), "{\"b\":3,\"c\":4,\"a\":{\"b\":2,\"c\":4},\"n\":[{}]}");
    copy.clear();
    copy.set("k\xFF", "a\x80z");
    copy.set("k\xFF", "a\xC3z"); // what isn't UTF-8 is repaired when it is set
    EXPECT_EQ(copy.toString(), "{\"k\xEF\xBF\xBD\":\"a\xEF\xBF\xBDz\"}");
}

TEST(Properties, ManyKeysStayCheap) {
    Properties properties;
    constexpr int COUNT = 30000; // quadratic work here would take minutes
    for (int i = 0; i < COUNT; ++i)
        properties.set("Rank[" + std::to_string(i) + "]", "host" + std::to_string(i));
    EXPECT_EQ(throughJson(properties), properties);
    properties.remove("Rank[5]");
    EXPECT_EQ(properties.getString("Rank[29999]"), "host29999");
    EXPECT_THROW(Properties(properties.toString().insert(1, "\"Rank[77]\":1,")), InputError);
}

TEST(Properties, DepthIsBoundedBothWays) {
    EXPECT_EQ(throughJson(nest(Properties::MAX_DEPTH)), nest(Properties::MAX_DEPTH));
    EXPECT_EQ(throughXml(nest(Properties::MAX_DEPTH)), nest(Properties::MAX_DEPTH));
    const Properties tooDeep = nest(Properties::MAX_DEPTH + 1);
    EXPECT_THROW(tooDeep.toString(), InternalError);
    EXPECT_THROW(tooDeep.toXml(), InternalError);
    std::string text = nest(Properties::MAX_DEPTH).toString();
    text.replace(text.find(":1}"), 3, ":[]}");
    EXPECT_EQ(inputError([&json = text] { Properties parsed(json); }).substr(0, 24),
              "Malformed JSON at byte 3");
    EXPECT_THROW(Properties("{\"a\":" + std::string(1 << 20, '[')), InputError);
}

TEST(Properties, BadJsonIsRefusedWithPositionAndReason) {
    for (const auto& [text, reason] :
         {std::pair<std::string, std::string>("", "byte 0: The document is empty."),
          {"[]", "byte 1: an object was expected"},
          {"{} {}", "byte 3: The document root must not be followed by other values."},
          {"{\"a\":1", "byte 6: Missing a comma or '}' after an object member."},
          {"{\"a\":1,}", "byte 7: Missing a name for object member."},
          {"{\"a\":NaN}", "byte 5: Invalid value."},
          {"{\"a\":1e999}", "byte 5: Number too big to be stored in double."},
          {"{\"a\":" + std::string(310, '9') + ".5}", "byte 5: Number too big to be stored in double."},
          {"{\"a\":9.9e308}", "byte 5: the number is too large"},
          {"{\"a\":1,\"b\":2,\"a\":3}", "byte 19: the key \"a\" stands there twice"},
          {"{\"\\u0061\":1,\"a\":3}", "byte 18: the key \"a\" stands there twice"},
          {"{\"a\":\"x\ny\"}", "byte 7: a control character must be escaped"},
          {"{\"a\":\"\\ud800\"}", "byte 6: The surrogate pair in string is invalid."},
          {"{\"a\":\"\\udc00\"}", "byte 13: an escape is half of a surrogate pair"},
          {"{\"\\udfff\":1}", "byte 9: an escape is half of a surrogate pair"},
          {"{\"abcdefghijkl\":\"\xED\xA0\x80\"}", "byte 17: the text isn't valid UTF-8"},
          {std::string("{\"a\":\"\0\"}", 9), "byte 6: a zero byte isn't allowed there"}})
        EXPECT_EQ(inputError([&json = text] { Properties parsed(json); }),
                  std::string("Malformed JSON at ") + reason)
            << text;
    const std::string tiny = "{\"a\":1e-999,\"b\":-0." + std::string(400, '0') + "1}";
    EXPECT_EQ(Properties(tiny).toString(), "{\"a\":0.0,\"b\":-0.0}");
}

TEST(Properties, BadXmlIsRefused) {
    const std::string one = "<value><struct><member><name>a</name><value>";
    const std::string end = "</value></member></struct></value>";
    for (const auto& [xml, reason] :
         {std::pair<std::string, const char*>("", "Start-end tags mismatch"),
          {"<value>", "Start-end tags mismatch"},
          {one + "<string>$real:x</string>" + end, "\"x\" isn't a number of the kind \"real\""},
          {"<array/></value>", "a value with one struct was expected"},
          {"<struct><member><name>a</name></member></struct></value>", "a member has no name or no value"},
          {one + "<i4>1x</i4>" + end, "\"1x\" isn't a number of the kind \"integer\""},
          {one + "<i8>9223372036854775808</i8>" + end, "isn't a number of the kind \"integer\""},
          {one + "<double></double>" + end, "\"\" isn't a number of the kind \"real\""},
          {one + "<boolean>2</boolean>" + end, "a value of the kind \"boolean\" isn't known"},
          {one + "<base64>*</base64>" + end, "isn't Base64"},
          {one + "<base64>/w==</base64>" + end, "isn't UTF-8"},
          {one + "\xFF" + end, "it isn't UTF-8 text without zero bytes"},
          {one + "1</value></member><member><name>a</name><value>" + end,
           "the key \"a\" stands there twice"}}) {
        const std::string told = inputError([&document = xml] { Properties::fromXml(document); });
        EXPECT_NE(told.find(reason), std::string::npos) << xml << "\n" << told;
    }
    std::string deep = "1";
    for (unsigned i = 0; i < Properties::MAX_DEPTH; ++i)
        deep = "<struct><member><name>a</name><value>" + deep + "</value></member></struct>";
    EXPECT_NE(inputError([&] { Properties::fromXml(one + deep + end); }).find("nested deeper"), one.npos);
    EXPECT_EQ(Properties::fromXml(one + "untyped &lt; text" + end).getString("a"), "untyped < text");
    EXPECT_EQ(Properties::fromXml(one + "<base64>\nYQ\n==\n</base64>" + end).getString("a"), "a");
}
