#pragma once

#include "kernel/Controller.h"
#include "kernel/server/RollCallDesk.h"

#include <chrono>
#include <functional>
#include <memory>
#include <string>

/// Ends the command at work for a client that insists: by a cancel when its task looks in time, else by the
/// end of the job, after the ranks were asked where they stand. All operations on the service thread.
class ForcedEnd {
public:
    struct Outcome {
        Properties result;  ///< for the client
        std::string reason; ///< to take the job down; empty: it goes on
    };
    using Done = std::function<void(const Outcome& outcome)>;

    /// @param time  for the task to look
    ForcedEnd(std::shared_ptr<asio::io_context> loop, RollCallDesk& rollCalls, std::chrono::milliseconds time)
        : _context(std::move(loop)), _rollCalls(rollCalls), _time(time) {}

    /// `done` is called once, on the service thread, perhaps at once.
    void demand(const std::string& client, const Done& done);

private:
    struct Demand {
        std::string client;
        Done done;
        Controller::RunningCommand command;
        bool cancelled;                            ///< there was a task to cancel
        std::chrono::steady_clock::time_point end; ///< of the time to look
    };
    void await(const Demand& demand);
    void decide(const Demand& demand, const RollCallDesk::Answer& standing);

    const std::shared_ptr<asio::io_context> _context;
    RollCallDesk& _rollCalls;
    const std::chrono::milliseconds _time;
};
