#include "platform/OrvexCommandTokenizer.h"

#include <gtest/gtest.h>

#include <stdexcept>

using Words = std::vector<std::string>;

TEST(OrvexCommandTokenizer, TakesWordsAndTextBothWays) {
    for (const auto& [text, words] : {std::pair<std::string, Words>("", {}),
                                      {"orvexsim -s -port 4711", {"orvexsim", "-s", "-port", "4711"}},
                                      {"a \"b c\" \"\"", {"a", "b c", ""}},
                                      {"\"say \\\"hi\\\"\"", {"say \"hi\""}},
                                      {"C:\\tools\\plink.exe -P", {"C:\\tools\\plink.exe", "-P"}},
                                      {"\"end \\\\\" x", {"end \\", "x"}},
                                      {"\"it's\"", {"it's"}}}) {
        EXPECT_EQ(OrvexCommandTokenizer::tokenize(text), words) << text;
        EXPECT_EQ(OrvexCommandTokenizer::concatenate(words), text);
    }
    // Further ways to write the same words.
    EXPECT_EQ(OrvexCommandTokenizer::tokenize("  a\t'b  \\c'd\n"), (Words{"a", "b  \\cd"}));
    // A word that came quoted isn't quoted twice.
    EXPECT_EQ(OrvexCommandTokenizer::concatenate(Words{"ssh", "\"a b\"", "\"a\"b\""}),
              "ssh \"a b\" \"\\\"a\\\"b\\\"\"");
    EXPECT_EQ(OrvexCommandTokenizer::concatenate(std::vector<std::wstring>{L"\x20AC", L"x y"}),
              L"\x20AC \"x y\"");
    // Any words come back.
    for (const std::string word : {R"(\)", R"(\\)", R"(a\")", R"("\)", R"(\' b)", R"(x\\"y z\)"}) {
        const Words words{word, "next"};
        EXPECT_EQ(OrvexCommandTokenizer::tokenize(OrvexCommandTokenizer::concatenate(words)), words) << word;
    }
}

TEST(OrvexCommandTokenizer, AnOpenQuoteIsAnError) {
    for (const std::string text : {"a \"b", "'", "\"x\\\""})
        EXPECT_THROW(OrvexCommandTokenizer::tokenize(text), std::invalid_argument) << text;
}
