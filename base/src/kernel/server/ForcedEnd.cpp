#include "kernel/server/ForcedEnd.h"

#include "kernel/Task.h"

#include "platform/Log.h"

#include <asio/io_context.hpp>
#include <asio/steady_timer.hpp>

namespace {

/// A task that was asked to end is looked at so often.
constexpr std::chrono::milliseconds LOOK_PERIOD{20};

bool isAtWork(const Controller::RunningCommand& command) {
    const auto running = Controller::getSingleton().getRunningCommand();
    return running && running->outermostBegan == command.outermostBegan && running->thread == command.thread;
}

Properties describe(bool cancelled, bool forced) {
    Properties result;
    result.set("cancelled", cancelled);
    result.set("forced", forced);
    return result;
}

} // namespace

void ForcedEnd::demand(const std::string& client, const Done& done) {
    const auto running = Controller::getSingleton().getRunningCommand();
    const bool cancelled = Task::cancelCurrent();
    const auto time = cancelled ? _time : std::chrono::milliseconds(0);
    if (running)
        await({client, done, *running, cancelled, std::chrono::steady_clock::now() + time});
    else
        done({describe(cancelled, false), {}});
}

void ForcedEnd::await(const Demand& demand) {
    if (!isAtWork(demand.command)) {
        demand.done({describe(demand.cancelled, false), {}});
    } else if (std::chrono::steady_clock::now() >= demand.end) {
        _rollCalls.ask({},
                       [this, demand](const RollCallDesk::Answer& standing) { decide(demand, standing); });
    } else {
        const auto timer = std::make_shared<asio::steady_timer>(*_context, LOOK_PERIOD);
        timer->async_wait([this, timer, demand](const asio::error_code&) { await(demand); });
    }
}

void ForcedEnd::decide(const Demand& demand, const RollCallDesk::Answer& standing) {
    if (!isAtWork(demand.command)) { // it has ended while the ranks were asked
        await(demand);
        return;
    }
    const std::string text = standing.result.getOr("text", standing.failure);
    const std::string verdict = standing.result.getOr("verdict", std::string());
    OS::Log::instance("Default").error("ForcedEnd::decide", "@0@", text);
    Outcome outcome{describe(demand.cancelled, true), demand.client + " forced the end of \"" +
                                                          demand.command.name + "\"" +
                                                          (verdict.empty() ? "" : ": " + verdict)};
    outcome.result.set("text", text);
    outcome.result.set("verdict", verdict);
    demand.done(outcome);
}
