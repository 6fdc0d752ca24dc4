#include "client/TopFeed.h"

#include "kernel/Properties.h"
#include "kernel/server/RpcMessage.h"

#include <ctime>
#include <utility>

namespace {

std::string localClock() {
    const std::time_t now = std::time(nullptr);
    std::tm parts{};
    char text[16] = "";
    if (localtime_r(&now, &parts))
        std::strftime(text, sizeof text, "%H:%M:%S", &parts);
    return text;
}

std::string failureOf(const RpcClient::Reply& reply) {
    if (reply.code == RpcFault::METHOD_NOT_FOUND)
        return "This server can't tell what its ranks do: it has no error channel, as with -nothreads";
    return reply.message;
}

} // namespace

TopFeed::TopFeed(RpcClient& client, std::string session, std::function<void()> arrived)
    : _client(client), _session(std::move(session)), _arrived(std::move(arrived)) {
    _client.setNotificationCallback(
        [this](const std::string& method, std::string_view params) { onNotification(method, params); });
}

TopFeed::~TopFeed() {
    _client.setNotificationCallback(nullptr);
}

/// The text that the server prints isn't for this screen.
void TopFeed::onNotification(const std::string& method, std::string_view params) {
    std::string text;
    const Properties values(params);
    if (method == "server.abort")
        text = "The job aborts: " + values.getOr("Message", "no reason given");
    else if (method == "server.notice")
        text = values.getOr("text", "");
    else if (method == "server.stopping")
        text = "The server stops";
    if (text.empty())
        return;
    const std::lock_guard lock(_mutex);
    _notices.push_back(text);
}

TopFrame TopFeed::fetch(const std::string& request, const RpcClient::Time& time) {
    TopFrame frame;
    frame.session = _session;
    const RpcClient::Reply status = _client.call("server.status", "{}", time);
    const RpcClient::Reply live = _client.call("server.live", request, time);
    frame.clock = localClock();
    Properties all;
    if (live.failed)
        all.set("error", failureOf(live));
    else
        all = Properties(std::string_view(live.result));
    const Properties state{std::string_view(status.failed ? "{}" : status.result)};
    if (state.hasName("running")) {
        frame.running = state.getProperties("running");
        all.set("running", frame.running);
    }
    if (live.failed)
        frame.failure = failureOf(live);
    else
        frame.job = LiveJob::fromProperties(all);
    _json = all.toString();
    return frame;
}

void TopFeed::ask(const std::string& request) {
    {
        const std::lock_guard lock(_mutex);
        _request = request;
        _isAsked = true;
    }
    _changed.notify_all();
}

std::optional<TopFrame> TopFeed::take() {
    const std::lock_guard lock(_mutex);
    if (_failure)
        std::rethrow_exception(std::exchange(_failure, nullptr));
    return std::exchange(_frame, std::nullopt);
}

std::vector<std::string> TopFeed::takeNotices() {
    const std::lock_guard lock(_mutex);
    return std::exchange(_notices, {});
}

void TopFeed::run() {
    std::unique_lock lock(_mutex);
    while (true) {
        _changed.wait(lock, [this] { return _isStopped || _isAsked; });
        if (_isStopped)
            return;
        const std::string request = _request;
        _isAsked = false;
        lock.unlock();
        std::optional<TopFrame> frame;
        std::exception_ptr failure;
        try {
            frame = fetch(request, std::nullopt);
        } catch (const std::exception&) {
            failure = std::current_exception();
        }
        lock.lock();
        _frame = std::move(frame);
        _failure = failure;
        _arrived();
        if (failure)
            return;
    }
}

void TopFeed::stop() {
    const std::lock_guard lock(_mutex);
    _isStopped = true;
    _changed.notify_all();
    _client.interrupt();
}
