#include "client/CtlConsole.h"

#include "platform/Pipe.h"

#include <gtest/gtest.h>

#include <csignal>

namespace {

TEST(CtlConsole, ShowsControlCharacters) {
    for (const auto& [text, shown] : std::initializer_list<std::pair<std::string_view, const char*>>{
             {"a\tb\n\xC3\xA4\xE2\x82\xAC", "a\tb\n\xC3\xA4\xE2\x82\xAC"},
             {"\x1b[31m\x07", "^[[31m^G"},
             {"one\rtwo\r\n", "one^Mtwo\n"},
             {"\x7f\xC2\x9b\xC2\xA0", "^?\\x9b\xC2\xA0"},
             {"\x9b", "\xEF\xBF\xBD"}, // no UTF-8: an eight-bit terminal would obey it
             {"", ""},
         })
        EXPECT_EQ(CtlConsole::toVisible(text), shown);
}

TEST(OutputQueue, WaitsForNoReaderAndTellsThatItIsGone) {
    std::signal(SIGPIPE, SIG_IGN);
    Pipe pipe;
    OutputQueue queue(pipe.getWriteDescriptor());
    const std::string text(std::size_t(4) << 20, 'x');
    queue.write(text); // more than a pipe holds, and nobody reads yet
    std::string received(text.size(), '\0');
    for (std::size_t size = 0; size < received.size();) {
        const int n = pipe.read(received.data() + size, received.size() - size, 20.0);
        ASSERT_GT(n, 0);
        size += static_cast<std::size_t>(n);
    }
    EXPECT_EQ(received, text);
    EXPECT_NO_THROW(queue.flush());
    pipe.closeReadEnd();
    queue.write("y");
    EXPECT_THROW(queue.flush(), OutputError);
    EXPECT_THROW(queue.write("z"), OutputError);
}

} // namespace
