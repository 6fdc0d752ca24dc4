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

} // namespace

TEST(StackTracer, NamesFunctionFileAndLineAlsoOfModulesThatCameLater) {
    int line = 0;
    std::string trace = StringHelper::join(traceHere(line), "\n");
    const std::string place = "StackTracerTest.cpp:" + std::to_string(line);
    const std::string first = trace.substr(0, trace.find('\n'));
    EXPECT_TRUE(first.find("traceHere") != first.npos && first.find(place) != first.npos) << trace;
    EXPECT_NE(trace.find("NamesFunctionFileAndLine"), trace.npos) << trace;
    const auto module = Platform::dynamiclibrary().load("OrvexPlatformTestModule");
    const auto take = reinterpret_cast<void (*)(std::vector<std::string>&)>(
        Platform::dynamiclibrary().findSymbol(module.handle, "orvexTestModuleTrace"));
    ASSERT_NE(take, nullptr) << module.error;
    std::vector<std::string> later;
    take(later);
    trace = StringHelper::join(later, "\n");
    EXPECT_NE(trace.find("orvexTestModuleTrace at "), trace.npos) << trace;
    EXPECT_NE(trace.find("TestModule.cpp:"), trace.npos) << trace;
    Platform::dynamiclibrary().unload(module.handle);
}
