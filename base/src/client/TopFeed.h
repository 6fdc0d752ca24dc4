#pragma once

#include "client/TopFrame.h"
#include "kernel/server/RpcClient.h"
#include "platform/Runnable.h"

#include <chrono>
#include <condition_variable>
#include <exception>
#include <functional>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

/// Asks the server for the frames of a live view, on a thread of its own: the view goes on while the server
/// is silent.
class TopFeed : public Runnable {
public:
    /// @param client   borrowed; nobody else uses it until the thread has ended
    /// @param session  what to call it
    /// @param arrived  called on the feed's thread when there is news
    TopFeed(RpcClient& client, std::string session, std::function<void()> arrived);
    ~TopFeed() override;

    /// One frame, on the calling thread. The answers themselves are kept for getJson().
    /// @param request  to `server.live`, JSON text
    /// @throw RpcClientError
    TopFrame fetch(const std::string& request, const RpcClient::Time& time);
    /// The last frame for programs: one line.
    const std::string& getJson() const { return _json; }

    /// Asks for a frame, unless one is on its way. Any thread.
    void ask(const std::string& request);
    /// A frame that has arrived since the last call. @throw RpcClientError when no more will come
    std::optional<TopFrame> take();
    /// Notices that the server has sent unasked.
    std::vector<std::string> takeNotices();

    void run() override;
    /// Ends the thread, also while it waits for the server. Any thread.
    void stop() override;

private:
    void onNotification(const std::string& method, std::string_view params);

    RpcClient& _client;
    const std::string _session;
    const std::function<void()> _arrived;
    std::string _json;

    std::mutex _mutex; ///< guards all below
    std::condition_variable _changed;
    bool _isStopped = false;
    bool _isAsked = false;
    std::string _request;
    std::optional<TopFrame> _frame;
    std::exception_ptr _failure;
    std::vector<std::string> _notices;
};
