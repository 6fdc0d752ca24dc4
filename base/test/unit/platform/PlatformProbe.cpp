// Plays a rank that watches its launcher: platformProbe HOW. HOW is plain, hang (the callback never returns)
// or stopped (the watch is stopped at once).
#include "platform/LauncherWatch.h"
#include "platform/Process.h"
#include "platform/Time.h"

#include <iostream>
#include <string>

int main(int, char** argv) {
    const std::string how = argv[1];
    LauncherWatch watch(
        [how](const std::string& reason) {
            std::cout << reason << std::endl;
            while (how == "hang")
                Platform::time().sleep(1.0);
        },
        0.2, 7);
    const bool watching = watch.start();
    if (how == "stopped")
        watch.stop(); // before anybody knows whom to kill
    std::cout << Platform::process().getPid();
    for (const auto& ancestor : watch.getAncestors())
        std::cout << " " << ancestor.pid << " " << ancestor.name;
    std::cout << std::endl;
    Platform::time().sleep(how == "stopped" ? 2.0 : 30.0); // the watch ends it long before
    return watching ? 1 : 2;
}
