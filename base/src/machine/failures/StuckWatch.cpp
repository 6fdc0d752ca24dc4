#include "machine/failures/StuckWatch.h"

#include "machine/failures/RollCall.h"
#include "machine/failures/RollCallReport.h"
#include "machine/failures/RollCallVerdict.h"
#include "machine/messages/OperationRecord.h"

#include "platform/Log.h"
#include "platform/Thread.h"
#include "platform/Time.h"

#include <algorithm>
#include <cmath>
#include <limits>
#include <utility>

namespace {

constexpr double PERIOD = 1.0;       ///< [s] between looks
constexpr double WARNING_TIME = 3.0; ///< [s] that ranks stand before clients hear of it

using Standings = std::vector<RankStanding>;

bool hasFailed(const RankStanding& standing) {
    return !standing.failure.empty();
}

/// At the end of the command, where the ranks gather their errors.
bool isAtEnd(const RankStanding& standing) {
    return standing.communicator.starts_with("command");
}

/// One sends to the other, which receives: a long message may be on its way.
bool isPair(const RankStanding& one, const RankStanding& other) {
    return one.partner == int(other.rank) && other.partner == int(one.rank) &&
           one.operation != other.operation && !RollCallVerdict::isCollective(one.operation) &&
           !RollCallVerdict::isCollective(other.operation);
}

/// Can't be seen to do something.
bool stands(const RankStanding& standing) {
    return (standing.state == RankStanding::WAITS && standing.stillSeconds >= PERIOD) ||
           standing.state == RankStanding::DEAD || standing.state == RankStanding::SILENT;
}

/// For how long no rank has moved [s]; 0 when one may be at work. The rank that failed is among them, so that
/// the time begins with its failure.
double getStandingTime(const Standings& standings) {
    if (!std::all_of(standings.begin(), standings.end(), stands))
        return 0.0;
    double time = std::numeric_limits<double>::max();
    for (const RankStanding& standing : standings)
        if (standing.state == RankStanding::WAITS)
            time = std::min(time, standing.stillSeconds);
    return time;
}

/// Ends the job by an error that the program can't go on from. It gives the output some time first.
bool isEnding(const RankStanding& standing) {
    return hasFailed(standing) && standing.state == RankStanding::SLEEPS && standing.stillSeconds >= PERIOD;
}

bool haveAllStoodFor(double seconds, const Standings& standings) {
    return std::all_of(standings.begin(), standings.end(), [seconds](const RankStanding& each) {
        return each.state == RankStanding::DEAD || each.state == RankStanding::SILENT ||
               each.state == RankStanding::STOPPED || each.stillSeconds >= seconds;
    });
}

/// Some ranks are at the end of the command while others stand in it, or ranks stand in different collectives
/// of one communicator: they wait for each other for ever.
bool isMismatch(const Standings& standings) {
    if (!std::all_of(standings.begin(), standings.end(),
                     [](const RankStanding& each) { return each.state == RankStanding::WAITS; }))
        return false;
    for (const RankStanding& each : standings)
        if (each.partner >= 0 && each.partner < int(standings.size()) &&
            isPair(each, standings[static_cast<std::size_t>(each.partner)]))
            return false;
    const auto endsOrNot = std::count_if(standings.begin(), standings.end(), isAtEnd);
    if (endsOrNot > 0 && endsOrNot < std::ptrdiff_t(standings.size()))
        return true;
    return std::any_of(standings.begin(), standings.end(), [&standings](const RankStanding& each) {
        return each.communicator == standings.front().communicator &&
               (each.operation != standings.front().operation || each.number != standings.front().number);
    });
}

std::string describeFailure(const Standings& standings) {
    const auto first = std::find_if(standings.begin(), standings.end(), hasFailed);
    const auto count = std::count_if(standings.begin(), standings.end(), hasFailed);
    std::string text = "Rank " + std::to_string(first->rank);
    if (count > 1)
        text += " and " + std::to_string(count - 1) + " more";
    if (first->state == RankStanding::SILENT)
        return text + (count > 1 ? " are" : " is") + " lost, and the other ranks wait: " + first->failure +
               "\n";
    return text + (count > 1 ? " have" : " has") + " left \"" + first->command +
           "\" by an error, and the other ranks wait: " + first->failure + "\n";
}

} // namespace

StuckWatch::StuckWatch(RollCall& rollCall, Settings settings)
    : _rollCall(rollCall), _settings(std::move(settings)),
      _thread(std::make_unique<Thread>(*this, "orvex-watch")) {}

StuckWatch::~StuckWatch() {
    StuckWatch::stop();
    join();
}

void StuckWatch::join() {
    _thread->join();
}

void StuckWatch::start() {
    _thread->start();
}

void StuckWatch::noteFailure() {
    const std::lock_guard lock(_mutex);
    _failureHeard = true;
}

void StuckWatch::stop() {
    const std::lock_guard lock(_mutex);
    _stopped = true;
    _changed.notify_all();
}

void StuckWatch::run() {
    std::unique_lock lock(_mutex);
    while (!_changed.wait_for(lock, std::chrono::duration<double>(PERIOD), [this] { return _stopped; })) {
        lock.unlock();
        try {
            look();
        } catch (const std::exception& error) {
            OS::Log::instance("Default").error("StuckWatch::run", "@0@", error.what());
        }
        lock.lock();
    }
}

void StuckWatch::look() {
    const OperationRecord::Snapshot record = OperationRecord::read();
    const double began = Platform::time().getTime() - record.commandSeconds;
    if (record.command != _command || std::abs(began - _began) > PERIOD / 2.0) {
        _command = record.command;
        _began = began;
        _nextLook = MISMATCH_TIME;
        _warned = _told = false;
    }
    if (_command.empty() || _told)
        return;
    bool failureHeard = false;
    {
        const std::lock_guard lock(_mutex);
        failureHeard = _failureHeard;
    }
    const double still = _rollCall.getStillSeconds();
    if (failureHeard)
        lookAfterFailure();
    else if (still >= STANDSTILL_TIME)
        lookForStandstill();
    else if (still >= _nextLook && record.isInside)
        lookForMismatch();
}

void StuckWatch::lookAfterFailure() {
    const Standings standings = _rollCall.callAll(false);
    if (std::none_of(standings.begin(), standings.end(), hasFailed)) {
        const std::lock_guard lock(_mutex);
        _failureHeard = false; // the command has come to its end
        return;
    }
    if (std::any_of(standings.begin(), standings.end(), isEnding)) {
        _told = true;
        const Standings places = _rollCall.callAll(true);
        if (std::any_of(places.begin(), places.end(), hasFailed))
            _settings.tell(describeFailure(places) + RollCallReport(places).getText());
        return;
    }
    const double standing = getStandingTime(standings);
    if (standing >= _settings.patience) {
        decide();
    } else if (standing >= WARNING_TIME && !_warned && !_settings.waits) {
        _warned = true;
        const int left = int(std::ceil(_settings.patience - standing));
        _settings.tell(describeFailure(standings) + "Nothing moves; the job ends in " + std::to_string(left) +
                       " s (see -stuck and -stuckafter).");
    }
}

void StuckWatch::lookForMismatch() {
    const Standings standings = _rollCall.callAll(false);
    if (std::any_of(standings.begin(), standings.end(), hasFailed)) { // for example lost with its host
        noteFailure();
        return;
    }
    if (haveAllStoodFor(MISMATCH_TIME - PERIOD, standings) && isMismatch(standings)) {
        _told = true;
        _settings.tell("The ranks wait for each other:\n" +
                       RollCallReport(_rollCall.callAll(true)).getText());
        return;
    }
    _nextLook = std::max(_nextLook, _rollCall.getStillSeconds()) + MISMATCH_TIME;
}

void StuckWatch::lookForStandstill() {
    const Standings standings = _rollCall.callAll(true);
    if (!haveAllStoodFor(STANDSTILL_TIME - 2 * PERIOD, standings))
        return;
    _told = true;
    _settings.tell("Nothing has moved for " + std::to_string(int(STANDSTILL_TIME)) + " s:\n" +
                   RollCallReport(standings).getText());
}

void StuckWatch::decide() {
    const Standings standings = _rollCall.callAll(true);
    if (std::none_of(standings.begin(), standings.end(), hasFailed))
        return;
    _told = true;
    const std::string text = describeFailure(standings) + RollCallReport(standings).getText();
    if (_settings.waits)
        _settings.tell(text + "\nThe job waits (-stuck wait): look with \"where\", end it with \"abort\".");
    else
        _settings.end(text);
}
