#include "platform/Terminal.h"

#include "platform/Io.h"
#include "platform/Pipe.h"
#include "platform/Signals.h"
#include "platform/System.h"
#include "platform/Time.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <cmath>
#include <csignal>
#include <poll.h>
#include <string_view>
#include <sys/ioctl.h>
#include <system_error>
#include <termios.h>
#include <unistd.h>
#include <utility>

namespace Platform {

namespace {

/// Another screen, no cursor, no wrapping of lines; and back.
constexpr std::string_view TAKE = "\033[?1049h\033[?25l\033[?7l";
constexpr std::string_view GIVE_BACK = "\033[0m\033[?7h\033[?25h\033[?1049l";
constexpr double REST_OF_KEY = 0.05; ///< [s] in which the rest of a key that sends several bytes comes
constexpr double WRITE_TIME = 2.0;   ///< [s] for a terminal that takes nothing
constexpr char INTERRUPT_CHARACTER = 3;
constexpr char STOP_CHARACTER = 26;

termios before; ///< valid while isTaken
std::atomic<bool> isTaken{false};

/// Allowed in the handler of a fault.
void giveBack() {
    if (!isTaken.exchange(false))
        return;
    if (::write(STDOUT_FILENO, GIVE_BACK.data(), GIVE_BACK.size()) < 0) {
        // The terminal is gone.
    }
    ::tcsetattr(STDIN_FILENO, TCSANOW, &before);
}

void take() {
    if (::tcgetattr(STDIN_FILENO, &before) != 0)
        throw std::system_error(errno, std::generic_category(), "The terminal");
    termios raw = before;
    raw.c_iflag &= ~static_cast<tcflag_t>(BRKINT | ICRNL | INLCR | IGNCR | ISTRIP | IXON);
    raw.c_lflag &= ~static_cast<tcflag_t>(ECHO | ECHONL | ICANON | ISIG | IEXTEN);
    raw.c_cc[VMIN] = 0;
    raw.c_cc[VTIME] = 0;
    isTaken = true;
    if (::tcsetattr(STDIN_FILENO, TCSANOW, &raw) != 0) {
        isTaken = false;
        throw std::system_error(errno, std::generic_category(), "The terminal");
    }
    io().write(STDOUT_FILENO, TAKE.data(), TAKE.size());
}

void onFault(int, int, void*) {
    giveBack();
}

/// The characters that keys send behind the escape character.
constexpr std::array<std::pair<std::string_view, Terminal::Key>, 21> SEQUENCES{{
    {"[A", Terminal::UP},         {"OA", Terminal::UP},     {"[B", Terminal::DOWN},
    {"OB", Terminal::DOWN},       {"[C", Terminal::RIGHT},  {"OC", Terminal::RIGHT},
    {"[D", Terminal::LEFT},       {"OD", Terminal::LEFT},   {"[5~", Terminal::PAGE_UP},
    {"[6~", Terminal::PAGE_DOWN}, {"[H", Terminal::HOME},   {"OH", Terminal::HOME},
    {"[1~", Terminal::HOME},      {"[7~", Terminal::HOME},  {"[F", Terminal::END},
    {"OF", Terminal::END},        {"[4~", Terminal::END},   {"[8~", Terminal::END},
    {"OP", Terminal::HELP},       {"[11~", Terminal::HELP}, {"[[A", Terminal::HELP},
}};

/// Whether more bytes belong to the key.
bool isOpen(std::string_view sequence) {
    if (sequence.empty() || sequence == "[" || sequence == "O" || sequence == "[[")
        return true;
    constexpr std::size_t MAX_LENGTH = 16;
    const char last = sequence.back();
    return sequence[0] == '[' && sequence[1] != '[' && sequence.size() < MAX_LENGTH && last >= 0x20 &&
           last < 0x40;
}

bool isReadable(int descriptor, double seconds) {
    pollfd one{descriptor, POLLIN, 0};
    return ::poll(&one, 1, static_cast<int>(seconds * 1000.0)) > 0;
}

} // namespace

struct Terminal::Impl {
    Pipe woken;
    std::atomic<bool> mustLeave{false};
    std::atomic<bool> mustStop{false};

    void onSignal(int signal) {
        if (signal == SIGTSTP)
            mustStop = true;
        else if (signal != SIGWINCH)
            mustLeave = true;
        wake();
    }
    void wake() { woken.write("", 1, 0.0); } // a full pipe wakes too
    void drain() {
        char buffer[256];
        while (woken.read(buffer, sizeof buffer, 0.0) > 0) {
        }
    }
    int readKey();
    int readSequence();
    void suspend();
};

bool Terminal::isUsable() {
    const std::string name = system().getEnvironment("TERM").value_or("");
    return !name.empty() && name != "dumb" && io().isTerminal(STDIN_FILENO) && io().isTerminal(STDOUT_FILENO);
}

bool Terminal::isUtf8() {
    for (const char* variable : {"LC_ALL", "LC_CTYPE", "LANG"}) {
        std::string value = system().getEnvironment(variable).value_or("");
        if (value.empty())
            continue;
        std::transform(value.begin(), value.end(), value.begin(),
                       [](char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c + 'a' - 'A') : c; });
        return value.find("utf-8") != std::string::npos || value.find("utf8") != std::string::npos;
    }
    return false;
}

bool Terminal::hasColours() {
    return system().getEnvironment("NO_COLOR").value_or("").empty();
}

Terminal::Terminal() : _impl(std::make_unique<Impl>()) {
    take();
    signals().installFaultHandler({Signals::SEGMENTATION, Signals::BUS_ERROR, Signals::FLOATING_POINT,
                                   Signals::ILLEGAL, Signals::ABORT},
                                  onFault);
    signals().watch({Signals::TERMINATE, Signals::INTERRUPT, Signals::HANG_UP, SIGQUIT, SIGWINCH, SIGTSTP},
                    [impl = _impl.get()](int signal, int) { impl->onSignal(signal); });
}

Terminal::~Terminal() {
    signals().unwatch();
    signals().restoreDefaults({Signals::SEGMENTATION, Signals::BUS_ERROR, Signals::FLOATING_POINT,
                               Signals::ILLEGAL, Signals::ABORT});
    giveBack();
}

Terminal::Size Terminal::getSize() const {
    winsize size{};
    if (::ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) != 0 || size.ws_col == 0 || size.ws_row == 0)
        return {};
    return {size.ws_col, size.ws_row};
}

bool Terminal::wasEnded() const {
    return _impl->mustLeave;
}

void Terminal::wake() {
    _impl->wake();
}

bool Terminal::draw(const std::string& picture) {
    // A terminal that is held (Ctrl-S) or slow must not hold the process: then this picture is left out.
    pollfd one{STDOUT_FILENO, POLLOUT, 0};
    const int ready = ::poll(&one, 1, static_cast<int>(WRITE_TIME * 1000.0));
    if (ready <= 0)
        return ready == 0 || errno == EINTR;
    return io().write(STDOUT_FILENO, picture.data(), picture.size());
}

int Terminal::waitForKey(double seconds) {
    pollfd both[] = {{STDIN_FILENO, POLLIN, 0}, {_impl->woken.getReadDescriptor(), POLLIN, 0}};
    const int time = static_cast<int>(std::lround(std::clamp(seconds, 0.0, 3600.0) * 1000.0));
    const int ready = ::poll(both, 2, time);
    if (both[1].revents != 0)
        _impl->drain();
    if (_impl->mustLeave)
        return LEAVE;
    if (_impl->mustStop.exchange(false)) {
        _impl->suspend();
        return NONE;
    }
    if (ready <= 0 || both[0].revents == 0)
        return NONE;
    return _impl->readKey();
}

int Terminal::Impl::readKey() {
    char byte = 0;
    const ssize_t n = ::read(STDIN_FILENO, &byte, 1);
    if (n < 0 && (errno == EINTR || errno == EAGAIN))
        return NONE;
    if (n <= 0 || byte == INTERRUPT_CHARACTER)
        return LEAVE;
    if (byte == STOP_CHARACTER) {
        suspend();
        return NONE;
    }
    if (byte == '\n')
        return ENTER;
    return byte == ESCAPE ? readSequence() : static_cast<unsigned char>(byte);
}

int Terminal::Impl::readSequence() {
    std::string sequence;
    while (isOpen(sequence) && isReadable(STDIN_FILENO, REST_OF_KEY)) {
        char byte = 0;
        if (::read(STDIN_FILENO, &byte, 1) != 1)
            break;
        sequence += byte;
    }
    if (sequence.empty())
        return ESCAPE;
    const auto found = std::find_if(SEQUENCES.begin(), SEQUENCES.end(),
                                    [&](const auto& each) { return each.first == sequence; });
    return found != SEQUENCES.end() ? found->second : UNKNOWN;
}

/// As Ctrl-Z does: the shell gets its terminal back until the process goes on.
void Terminal::Impl::suspend() {
    constexpr double MOMENT = 0.01; // [s] until all threads have stopped
    giveBack();
    struct sigaction standard {};
    struct sigaction watched {};
    standard.sa_handler = SIG_DFL;
    ::sigaction(SIGTSTP, &standard, &watched);
    ::kill(0, SIGTSTP); // without a shell that could continue it, the system ignores it
    time().sleep(MOMENT);
    ::sigaction(SIGTSTP, &watched, nullptr);
    take();
}

} // namespace Platform
