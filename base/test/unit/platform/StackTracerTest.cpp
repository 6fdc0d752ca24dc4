#include "platform/StackTracer.h"

#include "platform/DynamicLibrary.h"
#include "platform/StringHelper.h"

#include <gtest/gtest.h>

namespace {

__attribute__((noinline)) std::vector<std::string> traceHere(int& line) {
    line = __LINE__ + 1;
    auto trace = Platform::error().getStackTrace(12);
    line += trace.empty() ? 1 : 0; // work behind the call, so that this function keeps its frame
    return trace;
}

std::string joined(const std::vector<std::string>& trace) {
    return StringHelper::join(trace, "\n");
}

} // namespace

TEST(StackTracer, NamesFunctionFileAndLine) {
    int line = 0;
    const auto trace = traceHere(line);
    ASSERT_FALSE(trace.empty());
    EXPECT_NE(trace[0].find("traceHere"), std::string::npos) << joined(trace);
    EXPECT_NE(trace[0].find("StackTracerTest.cpp:" + std::to_string(line)), std::string::npos)
        << joined(trace);
    EXPECT_NE(joined(trace).find("NamesFunctionFileAndLine"), std::string::npos) << joined(trace);
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
