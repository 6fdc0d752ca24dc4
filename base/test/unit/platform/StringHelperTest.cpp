#include "platform/StringHelper.h"

#include <gtest/gtest.h>

#include <clocale>

using namespace std::string_literals;

TEST(StringHelper, TakesUtf8BothWays) {
    for (const auto& [narrow, wide] :
         {std::pair(""s, L""s),
          {"plain", L"plain"},
          {"a\0b"s, L"a\0b"s},
          {"\x7F\xC2\x80\xDF\xBF", L"\x7F\x80\x7FF"},
          {"\xE0\xA0\x80\xED\x9F\xBF\xEE\x80\x80\xEF\xBF\xBF", L"\x800\xD7FF\xE000\xFFFF"},
          {"\xF0\x90\x80\x80\xF4\x8F\xBF\xBF", L"\x10000\x10FFFF"}}) {
        EXPECT_EQ(StringHelper::toWString(narrow), wide) << narrow;
        EXPECT_EQ(StringHelper::toString(wide), narrow) << narrow;
        EXPECT_TRUE(StringHelper::isValidUtf8(narrow)) << narrow;
    }
}

TEST(StringHelper, ReplacesInvalidInput) {
    const std::wstring R = L"\xFFFD";
    for (const auto& [narrow, wide] : {std::pair("\x80"s, R),
                                       {"a\xFFz", L"a" + R + L"z"},
                                       {"\xC0\xAF", R + R},                 // overlong
                                       {"\xE0\x9F\x80", R + R + R},         // overlong
                                       {"\xED\xA0\x80", R + R + R},         // a surrogate
                                       {"\xF4\x90\x80\x80", R + R + R + R}, // beyond Unicode
                                       {"\xE2\x82", R}, // cut off: one replacement for the whole beginning
                                       {"\xE2\x82x", R + L"x"},
                                       {"\xF0\x9F\x98\xE2\x82\xAC", R + L"\x20AC"}}) {
        EXPECT_EQ(StringHelper::toWString(narrow), wide) << testing::PrintToString(narrow);
        EXPECT_FALSE(StringHelper::isValidUtf8(narrow)) << testing::PrintToString(narrow);
        EXPECT_TRUE(StringHelper::isValidUtf8(StringHelper::toValidUtf8(narrow)));
        EXPECT_EQ(StringHelper::toBytes(StringHelper::fromBytes(narrow)), narrow);
    }
    const std::wstring wrong{static_cast<wchar_t>(0xD800), static_cast<wchar_t>(0x110000),
                             static_cast<wchar_t>(-1)};
    EXPECT_EQ(StringHelper::toString(wrong), "\xEF\xBF\xBD\xEF\xBF\xBD\xEF\xBF\xBD");
}

TEST(StringHelper, AnyBytesHaveTheirText) {
    for (const auto& [bytes, text] : {std::pair("caf\xE9 \xC3\xA4"s, L"caf\\xE9 \xE4"s),
                                      {"\xE2\x82", L"\\xE2\\x82"},
                                      {"\\xE9", L"\\x5CxE9"}, // what looks like a mark already
                                      {"\\x5CxE9", L"\\x5Cx5CxE9"},
                                      {"\\\xFF\\x\xFF", L"\\\\xFF\\x\\xFF"},
                                      {"C:\\x2F \\xe9 \\x00 \\xF", L"C:\\x2F \\xe9 \\x00 \\xF"}}) {
        EXPECT_EQ(StringHelper::fromBytes(bytes), text) << testing::PrintToString(bytes);
        EXPECT_EQ(StringHelper::toBytes(text), bytes) << testing::PrintToString(text);
    }
}

TEST(StringHelper, CaseDoesNotFollowTheLocale) {
    ASSERT_NE(std::setlocale(LC_ALL, "C"), nullptr);
    EXPECT_EQ(StringHelper::toUpper("com1 \xC3\xA4\xCF\x89 @[`{"), "COM1 \xC3\x84\xCE\xA9 @[`{");
    EXPECT_EQ(StringHelper::toLower(L"COM1 \xC4\x3A9 @[`{"), L"com1 \xE4\x3C9 @[`{");
}

TEST(StringHelper, CutsAndJoinsWords) {
    using Words = std::vector<std::string>;
    for (const auto& [text, separators, words] : {std::tuple<std::string, std::string, Words>("", " ", {}),
                                                  {"  plink -P  22 ", " ", {"plink", "-P", "22"}},
                                                  {"/a//b/", "/", {"a", "b"}},
                                                  {"a:b;c", ":;", {"a", "b", "c"}}})
        EXPECT_EQ(StringHelper::tokenize(text, separators), words) << text;
    EXPECT_EQ(StringHelper::tokenize(L"-a b-c", L"-"), (std::vector<std::wstring>{L"a b", L"c"}));
    EXPECT_EQ(StringHelper::join({"1", "2", "3"}, ", "), "1, 2, 3");
    EXPECT_EQ(StringHelper::trim("\t a b \r\n"), "a b");
    EXPECT_EQ(StringHelper::trim(" \n"), "");
}

TEST(StringHelper, EncodedTextPassesACommandLine) {
    const std::wstring text = L"/data/a b'\"$`\\*\x00E4\x1F600%u0041;&|";
    const std::string encoded = StringHelper::encode(text);
    EXPECT_EQ(encoded.find_first_of(" '\"$`\\*;&|"), std::string::npos) << encoded;
    EXPECT_EQ(StringHelper::decode(StringHelper::toWString(encoded)), text);
    EXPECT_EQ(StringHelper::encode("a b"), "a%u0020b");
    // Other text is left alone, also forms that look encoded.
    for (const std::string plain :
         {"/data/50% of %users/x.sim", "%u00g0", "%u004", "%", "100%u", "%uD800", "%U00110000", "%u00e4"})
        EXPECT_EQ(StringHelper::decode(plain), plain);
}
