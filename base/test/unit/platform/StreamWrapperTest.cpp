#include "platform/IStreamWrapper.h"
#include "platform/OStreamWrapper.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <iomanip>
#include <sstream>

namespace {

OStreamWrapper& bang(OStreamWrapper& stream) {
    return stream << "!";
}

/// Counts the virtual calls that reach it.
class CountingOutput : public OStreamWrapper {
public:
    using OStreamWrapper::OStreamWrapper;
    using OStreamWrapper::operator<<;
    OStreamWrapper& operator<<(int value) override {
        ++count;
        return OStreamWrapper::operator<<(value);
    }
    int count = 0;
};

} // namespace

TEST(StreamWrapper, OutputIsThatOfTheStream) {
    std::ostringstream plain;
    std::ostringstream wrapped;
    OStreamWrapper out(wrapped);
    const auto print = [](auto& stream) {
        stream << std::hex << std::showbase << 255 << std::dec << " " << 1.5f << " " << 2.25 << " "
               << 1.0L / 3.0L;
        stream << " " << -1 << " " << 2u << " " << -3L << " " << 4ul << " " << -5LL << " " << 6ull;
        stream << " " << short{-7} << " " << static_cast<unsigned short>(8) << " " << std::boolalpha << true
               << " " << std::string("text") << " " << reinterpret_cast<const unsigned char*>("bytes") << 'c'
               << static_cast<unsigned char>('u');
        stream << reinterpret_cast<const void*>(std::uintptr_t{4096}) << std::endl;
    };
    print(plain);
    print(out);
    EXPECT_EQ(wrapped.str(), plain.str());

    out.width(6);
    out.fill('*');
    out.precision(3);
    out << 3.14159 << bang;
    out.write("raw\0", 4).put('p').flush();
    EXPECT_TRUE(wrapped.str().ends_with(std::string("**3.14!raw\0p", 12)));
    out.clear(std::ios_base::failbit);
    EXPECT_TRUE(!out && out.fail() && !out.bad());

    CountingOutput counting(wrapped);
    static_cast<OStreamWrapper&>(counting) << 1 << 2;
    counting << "text";
    EXPECT_EQ(counting.count, 2);
}

TEST(StreamWrapper, InputIsThatOfTheStream) {
    std::istringstream stream("0x1F 2.5 -3 4 -5 6 word rest of it\nline\nab");
    IStreamWrapper in(stream);
    int number = 0;
    double real = 0.0;
    long negative = 0;
    unsigned long large = 0;
    long long wide = 0;
    unsigned short small = 0;
    std::string word;
    in >> std::hex >> number >> std::dec >> real >> negative >> large >> wide >> small >> word;
    EXPECT_EQ(std::tie(number, real, negative, large, wide, small, word),
              std::make_tuple(31, 2.5, -3L, 4ul, -5LL, static_cast<unsigned short>(6), std::string("word")));
    char text[6] = "?????";
    in.width(4); // room for three characters and the zero
    in >> text;
    EXPECT_STREQ(text, "res");
    EXPECT_EQ(in.width(), 0);
    char buffer[32];
    EXPECT_TRUE(in.getline(buffer, sizeof buffer));
    EXPECT_STREQ(buffer, "t of it");
    EXPECT_EQ(in.gcount(), 8);
    EXPECT_EQ(in.peek(), 'l');
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
