#include "platform/Base64Encoder.h"

#include <gtest/gtest.h>

#include <stdexcept>

TEST(Base64Encoder, BothWays) {
    const struct {
        std::string bytes;
        std::string base64;
    } rows[] = {{"", ""},
                {"f", "Zg=="},
                {"fo", "Zm8="},
                {"foo", "Zm9v"},
                {"foob", "Zm9vYg=="},
                {"fooba", "Zm9vYmE="},
                {"foobar", "Zm9vYmFy"},
                {"\xFB\xEF\xFF", "++//"}};
    for (const auto& row : rows) {
        EXPECT_EQ(Base64Encoder::encode(row.bytes), row.base64);
        EXPECT_EQ(Base64Encoder::decodeBytes(row.base64), row.bytes);
    }
    const std::wstring wide = L"Stra\x00DF"
                              L"e \x20AC \x1F600";
    EXPECT_EQ(Base64Encoder::decode(Base64Encoder::encode(wide)), wide);
}

TEST(Base64Encoder, BadInputIsNamed) {
    const struct {
        std::string base64;
        std::string what;
    } rows[] = {{"Zg=", "its length, 3, is no multiple of 4"},
                {"Zm9*", "it has the character '*' at position 4"},
                {"Zm\n9", "it has the character of code 10 at position 3"},
                {"Z===", "it has the character '=' at position 2"},
                {"Zg==Zg==", "it has the character '=' at position 3"},
                {"Zh==", "its last digit, at position 2, has bits beyond the last byte"},
                {"Zm9=", "its last digit, at position 3, has bits beyond the last byte"},
                {"/w==", "what it holds isn't UTF-8"}};
    for (const auto& row : rows) {
        try {
            Base64Encoder::decode(row.base64);
            ADD_FAILURE() << row.base64 << " was taken";
        } catch (const std::invalid_argument& error) {
            EXPECT_EQ(error.what(), "Invalid Base64 text: " + row.what);
        }
    }
}
