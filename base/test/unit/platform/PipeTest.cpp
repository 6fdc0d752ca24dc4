#include "platform/Pipe.h"

#include <gtest/gtest.h>

#include <future>
#include <string>

TEST(Pipe, ReadsWhatCameAndTellsTheRest) {
    Pipe pipe;
    char buffer[8];
    EXPECT_EQ(pipe.read(buffer, sizeof buffer, 0.01), Pipe::TIMED_OUT);
    EXPECT_EQ(pipe.read(buffer, sizeof buffer, 0.0), Pipe::TIMED_OUT);
    EXPECT_TRUE(pipe.write("0123456789", 10));
    pipe.closeWriteEnd();
    EXPECT_EQ(pipe.read(buffer, sizeof buffer, 10.0), 8);
    EXPECT_EQ(std::string(buffer, 8), "01234567");
    EXPECT_EQ(pipe.read(buffer, sizeof buffer, -1.0), 2);
    EXPECT_EQ(pipe.read(buffer, sizeof buffer, -1.0), Pipe::END_OF_FILE);
    pipe.closeReadEnd();
    EXPECT_EQ(pipe.read(buffer, sizeof buffer, -1.0), Pipe::FAILED);
    EXPECT_FALSE(pipe.write("x", 1));
}

TEST(Pipe, AWriterNeitherHangsNorDies) {
    Pipe pipe;
    const std::string much(1 << 20, 'x'); // more than a pipe takes
    auto written = std::async(std::launch::async, [&] { return pipe.write(much.data(), much.size()); });
    std::string all;
    char buffer[5000];
    for (int n = 0; all.size() < much.size() && (n = pipe.read(buffer, sizeof buffer, 10.0)) > 0;)
        all.append(buffer, static_cast<std::size_t>(n));
    EXPECT_TRUE(written.get() && all == much);
    EXPECT_FALSE(pipe.write(much.data(), much.size(), 0.05));
    pipe.closeReadEnd();
    EXPECT_FALSE(pipe.write("x", 1)); // and no SIGPIPE ends the process
}
