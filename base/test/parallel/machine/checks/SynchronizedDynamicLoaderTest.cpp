// Modules that all ranks of a job load, or none.

#include "machine/SynchronizedDynamicLoader.h"
#include "machine/Machine.h"

#include "kernel/Controller.h"
#include "kernel/Raise.h"

#include "unit/machine/Failures.h"

#include <gtest/gtest.h>

namespace {

using Load = void (SynchronizedDynamicLoader::*)(const std::string&);

/// The text of the SystemError, empty when there is none.
std::string failureOf(const std::string& module, Load load = &SynchronizedDynamicLoader::load) {
    return messageOf<SystemError>([&] { (SynchronizedDynamicLoader::getSingleton().*load)(module); });
}

TEST(SynchronizedDynamicLoader, LoadsOnAllRanksOrFailsOnAll) {
    SynchronizedDynamicLoader& loader = SynchronizedDynamicLoader::getSingleton();
    const std::string tail = ".\nPlease check that program is installed correctly and that installation is "
                             "visible on all machines";
    const std::string head = "DynamicLoader: couldn't load OrvexNowhere.\n";

    const std::string everywhere = failureOf("OrvexNowhere");
    EXPECT_EQ(everywhere.substr(0, head.size()), head);
    EXPECT_EQ(everywhere.substr(everywhere.size() - tail.size()), tail);
    EXPECT_GT(everywhere.size(), head.size() + tail.size()) << "the reason is missing";

    // One rank fails, the others succeed: they raise the error too, and keep the module.
    for (const Load load : {&SynchronizedDynamicLoader::load, &SynchronizedDynamicLoader::nonStateLoad}) {
        if (Machine::nProcesses() == 1)
            break;
        const bool failing = Machine::getPartitionId() + 1 == Machine::nProcesses();
        const std::string module = failing ? "OrvexNowhere" : "OrvexScene";
        const std::string failure = failureOf(module, load);
        if (failing)
            EXPECT_EQ(failure, everywhere);
        else
            EXPECT_EQ(failure, "DynamicLoader: couldn't load OrvexScene.\n" + tail);
        EXPECT_EQ(loader.isLoaded("OrvexScene"), !failing);
    }
    loader.nonStateLoad("OrvexScene");
    loader.nonStateLoad("OrvexScene");
    EXPECT_TRUE(loader.isLoaded("OrvexScene"));
    EXPECT_TRUE(Controller::getSingleton().findCommand("GetSceneInformation"));
    EXPECT_EQ(failureOf("OrvexParallelSandbox"), "");
    EXPECT_TRUE(Controller::getSingleton().findCommand("SolveHeatConduction"));
    SynchronizedDynamicLoader::reset();
    EXPECT_TRUE(SynchronizedDynamicLoader::getSingleton().isLoaded("OrvexScene"));
}

} // namespace
