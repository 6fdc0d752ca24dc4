#include "platform/DynamicLibrary.h"

#include "platform/StringHelper.h"
#include "platform/System.h"

#include <gtest/gtest.h>

namespace {

Platform::DynamicLibrary& libraries = Platform::dynamiclibrary();

} // namespace

TEST(DynamicLibrary, LoadsFindsAndUnloads) {
    const auto module = libraries.load("OrvexPlatformTestModule");
    EXPECT_TRUE(module.path.ends_with("/libOrvexPlatformTestModule.so")) << module.path << module.error;
    for (const char* loaded : {"libOrvexPlatformTestModule.so", "libc.so.6"}) // whoever loaded it
        EXPECT_TRUE(libraries.isLoaded(loaded)) << loaded;
    EXPECT_FALSE(libraries.isLoaded("msmpi.dll"));
    EXPECT_EQ(libraries.findSymbol(module.handle, "orvexNothing"), nullptr);
    EXPECT_EQ(libraries.findSymbol(nullptr, "orvexTestModuleTrace"), nullptr);
    EXPECT_EQ(libraries.unload(module.handle), "");
    EXPECT_EQ(libraries.unload(nullptr), "No module to unload");
}

TEST(DynamicLibrary, AFailureNamesEveryPathAndTheReason) {
    const auto result = libraries.load("OrvexNoSuchModule");
    EXPECT_EQ(result.handle, nullptr);
    const auto candidates = libraries.getCandidates("OrvexNoSuchModule");
    ASSERT_GE(candidates.size(), 3u);
    const std::string program = StringHelper::toString(Platform::system().getExecutablePath());
    EXPECT_EQ(candidates.front(), program.substr(0, program.rfind('/')) + "/libOrvexNoSuchModule.so");
    EXPECT_EQ(candidates.back(), "libOrvexNoSuchModule.so");
    std::string expected = "Couldn't load the module OrvexNoSuchModule:";
    for (const std::string& candidate : candidates)
        expected += "\n  " + candidate +
                    (candidate == candidates.back() ? " (search path of the loader)" : "") +
                    ": cannot open shared object file: No such file or directory";
    EXPECT_EQ(result.error, expected);
    EXPECT_EQ(libraries.load("").error, "A module needs a name");
    EXPECT_EQ(libraries.load("/nowhere/x.so").error,
              "Couldn't load the module /nowhere/x.so:\n  /nowhere/x.so: cannot open shared object file: "
              "No such file or directory");
}

TEST(DynamicLibrary, AFileThatCannotBeLoadedIsTheOneThatWasMeant) {
    const auto broken = libraries.load("OrvexPlatformBrokenModule");
    EXPECT_EQ(broken.handle, nullptr);
    EXPECT_NE(broken.error.find("undefined symbol: orvexSymbolThatNobodyHas"), std::string::npos)
        << broken.error;
    EXPECT_EQ(broken.error.find("search path"), std::string::npos) << broken.error;
}
