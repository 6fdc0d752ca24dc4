#pragma once

#include "machine/failures/RankStanding.h"
#include "platform/Runnable.h"

#include <chrono>
#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

class RollCall;
class Thread;

/// Looks on the master whether a command still moves, and tells people when it doesn't.
///
/// - A rank has left the command by an error, and the others stand in operations of the message layer: they
///   wait for it. After a told time the job ends, with the error and the places of the others, or it waits
///   for the user.
/// - Ranks stand in operations that can't belong together, for example since one has skipped a collective:
///   clients are told after MISMATCH_TIME.
/// - Nothing moves on any rank: clients are told after STANDSTILL_TIME.
///
/// A rank that computes, sleeps or is held by a debugger is no suspect: as long as there is one, the watch
/// only tells. While all goes well it compares two numbers a second.
class StuckWatch : public Runnable {
public:
    static constexpr double MISMATCH_TIME = 10.0;   ///< [s]
    static constexpr double STANDSTILL_TIME = 60.0; ///< [s]

    struct Settings {
        double patience = 20.0; ///< [s] that ranks may wait for one that has failed
        bool waits = false;     ///< the job stays after that
        /// Gives a text of several lines to the log and to the clients.
        std::function<void(const std::string& text)> tell;
        /// Takes the job down. @param text  for people, of several lines
        std::function<void(const std::string& text)> end;
    };

    StuckWatch(RollCall& rollCall, Settings settings);
    StuckWatch(const StuckWatch&) = delete;
    StuckWatch& operator=(const StuckWatch&) = delete;
    ~StuckWatch() override;

    /// @throw std::system_error when the system has no thread left
    void start();
    /// A rank has left the command by an error. Any thread.
    void noteFailure();
    void run() override;
    void stop() override;
    /// Waits for the end of the thread, behind stop(). From then on noteFailure() changes nothing.
    void join();

private:
    using Standings = std::vector<RankStanding>;

    void look();
    void lookAfterFailure();
    void lookForMismatch();
    void lookForStandstill();
    void decide();

    RollCall& _rollCall;
    const Settings _settings;
    std::unique_ptr<Thread> _thread;
    std::mutex _mutex; ///< guards the two below
    std::condition_variable _changed;
    bool _stopped = false;
    bool _failureHeard = false;

    // ---- Of the thread alone, for the command at work.
    std::string _command;
    double _began = 0.0; ///< [s] when it did
    double _nextLook = MISMATCH_TIME;
    bool _warned = false;
    bool _told = false;
};
