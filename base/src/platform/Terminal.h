#pragma once

#include "platform/PlatformExport.h"

#include <memory>
#include <string>

namespace Platform {

/// The terminal of this process as a screen: keys come one by one, and the picture is replaced as a whole.
/// One at a time, one thread; wake() from any.
///
/// However the process ends (except SIGKILL), the terminal is as it was before.
class ORVEX_PLATFORM_EXPORT Terminal {
public:
    struct Size {
        unsigned columns = 80;
        unsigned rows = 24;
    };
    /// A key without a character of its own. The others are their characters.
    enum Key : int {
        NONE = 0, ///< the time is up, somebody called wake(), or the size has changed
        ENTER = '\r',
        ESCAPE = 27,
        UP = 0x1000,
        DOWN,
        LEFT,
        RIGHT,
        PAGE_UP,
        PAGE_DOWN,
        HOME,
        END,
        HELP,    ///< F1
        LEAVE,   ///< Ctrl-C, a signal that ends the process, or a terminal that is gone
        UNKNOWN, ///< any other key
    };

    /// Whether standard input and output are a terminal that can do this.
    static bool isUsable();
    /// Whether it shows UTF-8, by the environment.
    static bool isUtf8();
    /// Whether the user wants colours, by the environment: NO_COLOR.
    static bool hasColours();

    /// Takes the terminal over. @throw std::system_error when it refuses
    Terminal();
    Terminal(const Terminal&) = delete;
    Terminal& operator=(const Terminal&) = delete;
    /// Gives it back as it was.
    ~Terminal();

    Size getSize() const;
    /// Waits for a key, at most `seconds`. Ctrl-Z stops the process here; when it goes on, NONE is returned.
    int waitForKey(double seconds);
    /// Whether a signal asked the process to end.
    bool wasEnded() const;
    /// Ends the wait. Any thread.
    void wake();
    /// Writes `picture` with one system call where the system allows, from the upper left corner.
    /// @return false when the terminal is gone
    bool draw(const std::string& picture);

private:
    struct Impl;
    std::unique_ptr<Impl> _impl;
};

} // namespace Platform
