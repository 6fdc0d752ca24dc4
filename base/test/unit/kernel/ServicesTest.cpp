// The small services: singletons, modules, settings, the record of use, tasks, file names,
// floating-point contexts.

#include "kernel/AnalyticsEvent.h"
#include "kernel/AnalyticsManager.h"
#include "kernel/DynamicLoader.h"
#include "kernel/Error.h"
#include "kernel/FileHelper.h"
#include "kernel/IsolatedFpuContext.h"
#include "kernel/Observer.h"
#include "kernel/SingletonCleaner.h"
#include "kernel/SiteSettings.h"
#include "kernel/Task.h"
#include "kernel/UsageAgent.h"
#include "platform/DynamicLibrary.h"
#include "platform/StringHelper.h"
#include "support/TemporaryDirectory.h"
#include "unit/machine/LogLines.h"

#include <gtest/gtest.h>

#include <cfenv>
#include <cstdlib>
#include <limits>
#include <thread>

class FpuAccess {
public:
    static bool isIsolated() { return IsolatedFpuContext::isActive(FriendKey<FpuAccess>()); }
};

namespace {

/// A home of its own for the files of the test's user.
class UserFilesTest : public testing::Test {
protected:
    UserFilesTest() {
        for (const char* variable : {"XDG_CONFIG_HOME", "XDG_STATE_HOME"})
            ::setenv(variable, StringHelper::toString(_directory.getPath()).c_str(), 1);
        SiteSettings::reset();
    }
    ~UserFilesTest() override {
        for (const char* variable : {"XDG_CONFIG_HOME", "XDG_STATE_HOME"})
            ::unsetenv(variable);
        SiteSettings::reset();
    }

    SiteSettings& settingsWith(const std::string& text) {
        Platform::filesystem().makeDirectories(_directory / L"orvex");
        std::ofstream(StringHelper::toString(SiteSettings::getFilePath())) << text;
        SiteSettings::reset();
        return SiteSettings::getSingleton();
    }

    TemporaryDirectory _directory;
};

std::string resets;

} // namespace

TEST(SingletonCleaner, ResetsInReverseOrderAndOnce) {
    SingletonCleaner::reset(); // those that other tests registered
    SingletonCleaner::registerReset([] { resets += "a"; });
    const SingletonCleaner::Reset second = [] {
        resets += "b";
        SingletonCleaner::registerReset([] { resets += "c"; });
    };
    SingletonCleaner::registerReset(second);
    SingletonCleaner::registerReset(second);
    SingletonCleaner::reset();
    SingletonCleaner::reset();
    EXPECT_EQ(resets, "bca");
}

TEST(DynamicLoader, LoadsOnceAndReportsByResult) {
    DynamicLoader& loader = DynamicLoader::getSingleton();
    std::string reason = "untouched";
    EXPECT_TRUE(loader.nonStateLoadNoAssert("OrvexKernelTestModule", reason));
    EXPECT_TRUE(loader.isLoaded("OrvexKernelTestModule"));
    EXPECT_TRUE(loader.getStateModules().empty());
    loader.load("OrvexKernelTestModule");
    EXPECT_EQ(loader.getStateModules(), std::vector<std::string>{"OrvexKernelTestModule"});
    EXPECT_EQ(reason, "untouched");
    const auto library = Platform::dynamiclibrary().load("OrvexKernelTestModule");
    EXPECT_TRUE(loader.nonStateLoadNoAssert(library.path, reason)); // by its path: the same module
    EXPECT_STREQ(std::getenv("ORVEX_TEST_MODULE_ENTRIES"), "1");

    EXPECT_FALSE(loader.loadNoAssert("OrvexKernelFailingModule", reason));
    EXPECT_NE(reason.find("libOrvexKernelFailingModule.so: its start failed: no licence"), std::string::npos)
        << reason;
    EXPECT_FALSE(loader.isLoaded("OrvexKernelFailingModule"));
    EXPECT_THROW(loader.load("OrvexNoSuchModule"), SystemError);
    EXPECT_EQ(loader.getStateModules().size(), 1u);
    DynamicLoader::reset();
}

TEST_F(UserFilesTest, SettingsHaveDefaultsWhateverTheFileHolds) {
    const LogLines lines;
    EXPECT_EQ(SiteSettings::getSingleton().getInt("UsageImprovementProgram", 5), 5);
    EXPECT_EQ(lines.text(), "");
    SiteSettings& good = settingsWith("{\"UsageImprovementProgram\":1,\"text\":\"x\"}");
    EXPECT_EQ(good.getInt("UsageImprovementProgram", 0), 1);
    EXPECT_EQ(good.getInt("text", 7), 7);
    EXPECT_EQ(settingsWith("{\"text\":\"y\"").getString("text", "none"), "none");
    const std::string large = "{\"x\":\"" + std::string(SiteSettings::MAX_FILE_SIZE, 'x') + "\"}";
    EXPECT_EQ(settingsWith(large).getString("x", "none"), "none");
    for (const char* reason : {"The key \"text\" holds a text", "Malformed JSON", "can't be read"})
        EXPECT_NE(lines.text().find(reason), std::string::npos) << lines.text();
}

TEST_F(UserFilesTest, UsageIsRecordedWithConsentOnlyAndBounded) {
    using Owned = std::unique_ptr<Analytics::Manager>;
    Analytics::Event event("COMMAND_LINE_PARAMETERS");
    event.addAttribute("np", 4u);
    event.addAttribute("Chip", std::string(2000, 'c'));
    for (const auto& [active, consent] : {std::pair(false, 1), std::pair(true, 0)}) {
        const Owned off(UsageAgent::createAnalyticsManager("KEY", "1.0", active, consent, true));
        EXPECT_FALSE(off->isInitialized());
        off->logEvent(event);
    }
    const Owned manager(UsageAgent::createAnalyticsManager("KEY", "1.0", true, 1, true));
    ASSERT_TRUE(manager->isInitialized());
    EXPECT_FALSE(Platform::filesystem().exists(manager->getPath())); // the two above wrote nothing
    for (int i = 0; i < 300; ++i)
        manager->logEvent(event);
    std::string record;
    ASSERT_TRUE(
        Platform::filesystem().readFile(manager->getPath(), record, Analytics::Manager::MAX_RECORD_SIZE));
    EXPECT_GT(record.size(), Analytics::Manager::MAX_RECORD_SIZE / 4);
    for (const std::string& line : StringHelper::tokenize(record, "\n"))
        EXPECT_EQ(Properties(line).getProperties("Attributes").getInt("np"), 4);
}

TEST(Task, TellsItsProgressAndCanBeCancelled) {
    struct Noting : Observer {
        void update(Properties& step) override {
            EXPECT_EQ(step.getString(Task::NAME_TAG), "mesh");
            log += step.getString(Task::STATE_TAG) + " " +
                   std::to_string(int(100 * step.getReal(Task::PROGRESS_TAG))) +
                   step.getString(Task::MESSAGE_TAG) + ";";
        }
        std::string log;
    } observer;
    Task::getObservable().attach(observer);
    EXPECT_FALSE(Task::cancelCurrent());
    {
        Task task("mesh");
        for (int i = 0; i <= 1000; ++i)
            task.setProgress(i / 1000.0 / 50.0); // told in hundredths
        task.setProgress(0.02, "b");
        task.setProgress(7.0, "b");
    }
    EXPECT_EQ(observer.log, "started 0;running 1;running 2;running 2b;running 100b;finished 100b;");
    observer.log.clear();
    EXPECT_THROW(
        {
            Task task("mesh");
            std::thread([] {
                EXPECT_EQ(Task::getCurrent()->name, "mesh");
                EXPECT_TRUE(Task::cancelCurrent());
            }).join();
            task.setProgress(std::numeric_limits<double>::quiet_NaN());
            task.advance(0.5);
        },
        RecoverableError);
    EXPECT_EQ(observer.log, "started 0;running 50;cancelled 50;");
    observer.log.clear();
    try {
        Task task("mesh");
        throw std::runtime_error("");
    } catch (const std::runtime_error&) {
    }
    EXPECT_EQ(observer.log, "started 0;failed 0;");
    Task::getObservable().detach(observer);
}

TEST(FileHelper, CutsNames) {
    for (const auto& [path, name, stem, extension] :
         {std::tuple(L"/a.b/c.d.sim", L"c.d.sim", L"c.d", L".sim"),
          {L"/a.b/plain", L"plain", L"plain", L""},
          {L"/x/.hidden.sim", L".hidden.sim", L".hidden", L".sim"},
          {L"a.", L"a.", L"a", L"."},
          {L"/a/", L"", L"", L""},
          {L"", L"", L"", L""}}) {
        EXPECT_EQ(FileHelper::stripPath(path), name);
        EXPECT_EQ(FileHelper::stripPathAndExtension(path), stem);
        EXPECT_EQ(FileHelper::getExtension(path), extension);
        EXPECT_EQ(FileHelper::stripExtension(path) + FileHelper::getExtension(path), path);
    }
}

TEST(IsolatedFpuContext, KeepsFaultsToItself) {
    std::feclearexcept(FE_ALL_EXCEPT);
    std::feraiseexcept(FE_OVERFLOW);
    EXPECT_FALSE(FpuAccess::isIsolated());
    {
        const IsolatedFpuContext outer(false);
        EXPECT_EQ(std::fetestexcept(FE_OVERFLOW), 0);
        {
            const IsolatedFpuContext inner(true);
            std::feraiseexcept(FE_DIVBYZERO);
        }
        EXPECT_TRUE(FpuAccess::isIsolated());
        EXPECT_EQ(std::fetestexcept(FE_DIVBYZERO), 0);
        std::feraiseexcept(FE_INVALID);
    }
    EXPECT_FALSE(FpuAccess::isIsolated());
    EXPECT_EQ(std::fetestexcept(FE_OVERFLOW | FE_INVALID | FE_DIVBYZERO), FE_OVERFLOW);
    std::feclearexcept(FE_ALL_EXCEPT);
}
