#include "platform/StackTracer.h"

#include "platform/DynamicLibrary.h"

#include <gtest/gtest.h>

namespace {

__attribute__((noinline)) std::vector<std::string> traceHere(int& line) {
    line = __LINE__ + 1;
    auto trace = Platform::error().getStackTrace(12);
    line += trace.empty() ? 1 : 0; // work behind the call, so that this function keeps its frame
    return trace;
}

std::string joined(const std::vector<std::string>& trace) {
    std::string text;
    for (const std::string& frame : trace)
        text += frame + "\n";
    return text;
}

} // namespace

TEST(StackTracer, NamesFunctionFileAndLine) {
    int line = 0;
    const auto trace = traceHere(line);
    ASSERT_FALSE(trace.empty());
    EXPECT_LE(trace.size(), 12u);
    EXPECT_NE(trace[0].find("traceHere"), std::string::npos) << joined(trace);
    EXPECT_NE(trace[0].find("StackTracerTest.cpp:" + std::to_string(line)), std::string::npos)
        << joined(trace);
    EXPECT_NE(joined(trace).find("NamesFunctionFileAndLine"), std::string::npos) << joined(trace);
}

TEST(StackTracer, BoundsAndSkips) {
    const void* frames[4] = {};
    const void* fewer[4] = {};
    EXPECT_EQ(Platform::error().capture(frames, 0), 0u);
    EXPECT_EQ(Platform::error().capture(frames, 3), 3u);
    EXPECT_EQ(frames[3], nullptr);
    EXPECT_EQ(Platform::error().capture(fewer, 2, 1), 2u);
    EXPECT_EQ(fewer[0], frames[1]);
    EXPECT_TRUE(Platform::error().resolve(frames, 0).empty());
    const void* nowhere = reinterpret_cast<const void*>(16);
    EXPECT_EQ(Platform::error().resolve(&nowhere, 1), std::vector<std::string>{"0x10"});
}

TEST(StackTracer, KnowsModulesThatCameLater) {
    int line = 0;
    ASSERT_FALSE(traceHere(line).empty()); // the debug information is read by now
    const auto module = Platform::dynamiclibrary().load("OrvexPlatformTestModule");
    ASSERT_NE(module.handle, nullptr) << module.error;
    const auto take = reinterpret_cast<void (*)(std::vector<std::string>&)>(
        Platform::dynamiclibrary().findSymbol(module.handle, "orvexTestModuleTrace"));
    ASSERT_NE(take, nullptr);
    std::vector<std::string> trace;
    take(trace);
    EXPECT_NE(joined(trace).find("orvexTestModuleTrace at "), std::string::npos) << joined(trace);
    EXPECT_NE(joined(trace).find("TestModule.cpp:"), std::string::npos) << joined(trace);
    Platform::dynamiclibrary().unload(module.handle);
}
