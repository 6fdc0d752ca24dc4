#include "platform/IStreamWrapper.h"

#include <gtest/gtest.h>

#include <sstream>

// Each operation for values is tested where a file is read and written.

TEST(StreamWrapper, InputIsThatOfTheStream) {
    std::istringstream stream("0x1F rest of it\nline\nab");
    IStreamWrapper in(stream);
    long number = 0;
    in >> std::hex >> number >> std::dec;
    EXPECT_EQ(number, 31);
    char text[6] = "?????";
    in.width(4); // room for three characters and the zero
    in >> text;
    EXPECT_STREQ(text, "res");
    EXPECT_EQ(in.width(), 0);
    char buffer[32];
    EXPECT_TRUE(in.getline(buffer, sizeof buffer));
    EXPECT_EQ(in.get(), 'l');
    in.putback('l').ignore(100, '\n').read(buffer, 10);
    EXPECT_EQ(in.gcount(), 2);
    EXPECT_TRUE(in.eof() && in.fail() && !in.good() && !in);
    in.clear();
    in.seekg(2, std::ios_base::beg);
    EXPECT_EQ(in.tellg(), std::streampos(2));
    in.width(1);
    in >> text;
    EXPECT_TRUE(in.fail()); // no room for anything
    EXPECT_STREQ(text, "");
}
