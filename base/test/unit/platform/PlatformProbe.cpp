// Plays the processes that the tests need beside their own:
//   platformProbe run WORDS...     starts the words as a child that prints where this one does, and waits
//   platformProbe rank HOW         watches its launcher: HOW is plain, hang (the callback never returns)
//                                  or stopped (the watch is stopped at once)
#include "platform/LauncherWatch.h"
#include "platform/Process.h"
#include "platform/StringHelper.h"
#include "platform/Time.h"

#include <iostream>
#include <string>
#include <vector>

namespace {

constexpr int WATCH_STATUS = 7;

int run(int argc, char** argv) {
    std::vector<std::wstring> words;
    for (int i = 2; i < argc; ++i)
        words.push_back(StringHelper::toWString(argv[i]));
    return Platform::process().run(words);
}

int playRank(const std::string& how) {
    LauncherWatch watch(
        [how](const std::string& reason) {
            std::cout << reason << std::endl;
            while (how == "hang")
                Platform::time().sleep(1.0);
        },
        0.2, WATCH_STATUS);
    const bool watching = watch.start();
    std::cout << Platform::process().getPid();
    for (const auto& ancestor : watch.getAncestors())
        std::cout << " " << ancestor.pid << " " << ancestor.name;
    std::cout << std::endl;
    if (how == "stopped")
        watch.stop();
    Platform::time().sleep(how == "stopped" ? 2.0 : 30.0); // the watch ends it long before
    return watching ? 1 : 2;
}

} // namespace

int main(int argc, char** argv) {
    return argv[1] == std::string("run") ? run(argc, argv) : playRank(argv[2]);
}
