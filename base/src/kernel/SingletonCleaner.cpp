#include "kernel/SingletonCleaner.h"

#include "platform/Log.h"

#include <algorithm>
#include <exception>
#include <mutex>
#include <vector>

namespace {

struct Registry {
    std::mutex mutex;
    std::vector<SingletonCleaner::Reset> resets;
};

/// Made on first use, since singletons of other libraries register while these load; never destroyed, since
/// they may register while the process ends.
Registry& registry() {
    static Registry* const instance = new Registry;
    return *instance;
}

SingletonCleaner::Reset takeLast() {
    Registry& all = registry();
    const std::lock_guard guard(all.mutex);
    if (all.resets.empty())
        return nullptr;
    const SingletonCleaner::Reset last = all.resets.back();
    all.resets.pop_back();
    return last;
}

} // namespace

void SingletonCleaner::registerReset(Reset reset) {
    Registry& all = registry();
    const std::lock_guard guard(all.mutex);
    if (std::find(all.resets.begin(), all.resets.end(), reset) == all.resets.end())
        all.resets.push_back(reset);
}

void SingletonCleaner::reset() {
    while (const Reset reset = takeLast()) {
        try {
            reset();
        } catch (const std::exception& error) {
            OS::Log::instance("Default").error("SingletonCleaner::reset", "@0@", error.what());
        }
    }
}
