#pragma once

#include "kernel/Properties.h"

#include <chrono>
#include <deque>
#include <functional>
#include <memory>
#include <string>

namespace asio {
class io_context;
}

/// Has the ranks called on a thread of its own, so that the service goes on, and hands out the answers.
///
/// One call at a time. Those who ask for the same while it runs share its answer, the others get the next.
/// All operations on the service thread, except the last.
class RollCallDesk {
public:
    using Callback = std::function<Properties(const Properties& request)>;
    struct Answer {
        Properties result;
        std::string failure; ///< empty: there is a result
    };
    using Done = std::function<void(const Answer& answer)>;

    /// @param callback  asks the ranks; may be empty
    /// @param limit     after which an asker is told that there is no answer
    RollCallDesk(std::shared_ptr<asio::io_context> loop, Callback callback, std::chrono::milliseconds limit);
    RollCallDesk(const RollCallDesk&) = delete;
    RollCallDesk& operator=(const RollCallDesk&) = delete;
    ~RollCallDesk();

    /// `done` is called once, on the service thread, perhaps at once.
    void ask(const Properties& request, Done done);
    /// Answers those who wait: the service ends.
    void close();
    /// Waits for the end of a call, within the limit: the callback uses what ends with the server. Any
    /// thread, after the end of the service.
    void finish();

private:
    struct Asker {
        Properties request;
        Done done;
        std::chrono::steady_clock::time_point end;
    };
    class Call;
    struct Loop;

    void beginCall();
    void onAnswer(const Answer& answer);
    void watchTime();
    void answer(const std::function<bool(const Asker&)>& isMeant, const Answer& answer);

    const std::shared_ptr<asio::io_context> _context;
    const std::unique_ptr<Loop> _loop;
    const Callback _callback;
    const std::chrono::milliseconds _limit;
    bool _closed = false;
    std::deque<Asker> _askers; ///< in the order in which they came
    std::unique_ptr<Call> _call;
    std::shared_ptr<RollCallDesk*> _self; ///< for answers that come when this is gone
};
