#include "kernel/server/ConsoleRelay.h"

#include "kernel/server/RpcMessage.h"
#include "kernel/server/ServerClients.h"

#include <algorithm>
#include <string_view>

namespace {

constexpr std::size_t NOTICE_SIZE = std::size_t(32) << 10; ///< text in one notification [bytes]

/// How much of `text` goes into the next notification: whole lines if possible, whole characters always.
std::size_t noticeLength(std::string_view text) {
    if (text.size() <= NOTICE_SIZE)
        return text.size();
    const std::size_t lineEnd = text.rfind('\n', NOTICE_SIZE - 1);
    if (lineEnd != std::string_view::npos)
        return lineEnd + 1;
    std::size_t length = NOTICE_SIZE;
    while (length > NOTICE_SIZE - 4 && (static_cast<unsigned char>(text[length]) & 0xC0u) == 0x80u)
        --length;
    return length;
}

} // namespace

ConsoleRelay::ConsoleRelay(std::ostream& stream, std::size_t limit, ServerClients& clients,
                           std::function<void()> wake)
    : _clients(clients), _wake(std::move(wake)), _tee(stream, limit, [this] { onText(); }) {}

void ConsoleRelay::noteClients() {
    _tee.setWanted(_clients.hasReaders());
}

void ConsoleRelay::onText() {
    if (!_woken.exchange(true))
        _wake();
}

void ConsoleRelay::drain() {
    const std::lock_guard lock(_mutex);
    _woken = false;
    const ConsoleTee::Text console = _tee.take();
    std::string_view rest = console.text;
    while (!rest.empty()) {
        const std::string_view part = rest.substr(0, noticeLength(rest));
        rest.remove_prefix(part.size());
        const auto lines = static_cast<std::size_t>(std::count(part.begin(), part.end(), '\n'));
        _clients.sendNotice(
            RpcMessage::notification("server.console", "{\"text\":" + RpcMessage::quote(part) + "}"),
            std::max<std::size_t>(lines, 1));
    }
    if (console.lostLines > 0)
        _clients.sendNotice(RpcMessage::notification("server.consoleLost",
                                                     "{\"lines\":" + std::to_string(console.lostLines) + "}"),
                            console.lostLines);
}
