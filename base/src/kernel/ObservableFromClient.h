#pragma once

#include "kernel/KernelExport.h"

#include <functional>
#include <string>

/// Sends a notice to the clients that watch this process.
class ORVEX_KERNEL_EXPORT ObservableFromClient {
public:
    static constexpr const char* CONSOLE_MESSAGE = "ConsoleMessage";
    using Notifier = std::function<void(const std::string& kind, const std::string& text)>;

    /// Sends at once, not with the response of the command at work. Any thread. Without a notifier a console
    /// message goes to the standard output, any other kind nowhere.
    static void notifyImmediate(const std::string& kind, const std::string& text);
    /// Installs what carries notices to the clients; empty: none. Any thread. When it returns, the one before
    /// it isn't called any more. `notifier` may not install another one.
    static void setNotifier(Notifier notifier);
};
