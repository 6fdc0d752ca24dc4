// Plays the processes that the tests need beside their own:
//   platformProbe run WORDS...     starts the words as a child that prints where this one does, and waits
//   platformProbe rank HOW         watches its launcher: HOW is plain or hang (the callback never returns)
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
    Platform::time().sleep(30.0); // the watch ends it long before
    return watching ? 1 : 2;
}

} // namespace

int main(int argc, char** argv) {
    const std::string part = argc > 1 ? argv[1] : "";
    if (part == "run" && argc > 2)
        return run(argc, argv);
    if (part == "rank" && argc > 2)
        return playRank(argv[2]);
    std::cerr << "platformProbe: run WORDS... or rank HOW is expected\n";
    return 64;
}
