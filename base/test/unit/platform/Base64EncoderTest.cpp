#include "platform/Base64Encoder.h"

#include <gtest/gtest.h>

#include <stdexcept>

TEST(Base64Encoder, TakesBytesBothWays) {
    for (const auto& [bytes, base64] : {std::pair("", ""),
                                        {"f", "Zg=="},
                                        {"foo", "Zm9v"},
                                        {"fooba", "Zm9vYmE="},
                                        {"\xFB\xEF\xFF", "++//"}}) {
        EXPECT_EQ(Base64Encoder::encode(bytes), base64);
        EXPECT_EQ(Base64Encoder::decodeBytes(base64), bytes);
    }
    const std::wstring wide = L"\x00DF \x20AC \x1F600";
    EXPECT_EQ(Base64Encoder::decode(Base64Encoder::encode(wide)), wide);
}

TEST(Base64Encoder, BadInputIsNamed) {
    for (const auto& [base64, what] :
         {std::pair<std::string, std::string>("Zg=", "its length, 3, is no multiple of 4"),
          {"Zm9*", "it has the character '*' at position 4"},
          {"Zm\n9", "it has the character of code 10 at position 3"},
          {"Zg==Zg==", "it has the character '=' at position 3"},
          {"Zh==", "its last digit, at position 2, has bits beyond the last byte"},
          {"Zm9=", "its last digit, at position 3, has bits beyond the last byte"},
          {"/w==", "what it holds isn't UTF-8"}}) {
        try {
            Base64Encoder::decode(base64);
            ADD_FAILURE() << base64 << " was taken";
        } catch (const std::invalid_argument& error) {
            EXPECT_EQ(error.what(), "Invalid Base64 text: " + what);
        }
    }
}
