#include "kernel/ObservableFromClient.h"

#include <iostream>
#include <mutex>
#include <utility>

namespace {

std::mutex mutex;
ObservableFromClient::Notifier installed;

} // namespace

void ObservableFromClient::notifyImmediate(const std::string& kind, const std::string& text) {
    const std::lock_guard guard(mutex);
    if (installed)
        installed(kind, text);
    else if (kind == CONSOLE_MESSAGE)
        std::cout << text << std::flush;
}

void ObservableFromClient::setNotifier(Notifier notifier) {
    const std::lock_guard guard(mutex);
    installed = std::move(notifier);
}
