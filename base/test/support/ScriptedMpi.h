#pragma once

#include "mpiwrapper/OxmMpi.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <iterator>
#include <map>
#include <optional>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

/// A wrapper call as the scripted driver saw it.
struct ScriptedCall {
    std::string name; ///< without the prefix: "Bcast"
    /// Numbers in the order of the arguments; a handle that goes in by address counts as the number that it
    /// holds.
    std::vector<std::pair<std::string, long long>> numbers;
    /// Counts, displacements, ranks, requests, ...: as many elements as the call reads.
    std::map<std::string, std::vector<long long>> arrays;
    std::map<std::string, std::string> texts;
    /// All other addresses, also of what the call sets: for an action that fills buffers.
    std::map<std::string, void*> addresses;

    /// Whether a number of this name goes in.
    bool takes(const std::string& argument) const {
        return std::ranges::any_of(numbers, [&](const auto& each) { return each.first == argument; });
    }
    /// A number by its argument's name; throws std::out_of_range when the call has none.
    long long get(const std::string& argument) const {
        for (const auto& [key, value] : numbers)
            if (key == argument)
                return value;
        throw std::out_of_range(name + " has no number \"" + argument + "\"");
    }
    /// "Bcast(count=5, datatype=10, root=0, comm=1)", in the order of the arguments. Buffers stand in it only
    /// when they are null or in place.
    std::string text() const { return _text; }

    std::string _text;
};

/// Control of the module OrvexScriptedMpi, a driver that plays a job of one process. It can pretend to be one
/// of many ranks: what would come from others then stays as it was, unless a test brings it by deliver() or
/// setAction(). Data between ranks are seen in real jobs: collectives only record, except plain gathers.
///
/// By default everything succeeds, requests complete at once, and files keep nothing.
class ScriptedMpi {
public:
    /// Loads the module, makes it the wrapper's driver with files, starts MPI, and resets it. As often as
    /// wanted.
    static ScriptedMpi& start();
    /// Only loads the module.
    static ScriptedMpi& load();
    /// The module's handle, for OXM_MPI_Initialize.
    static void* library();

    virtual ~ScriptedMpi() = default;
    /// Back to rank 0 of 1, without scripts, messages, calls or live handles.
    virtual void reset() = 0;

    // What the process is
    virtual void setWorld(int rank, int size) = 0;
    void setProcessorName(const std::string& name) { processorName = name; }
    void setMaxBufferSize(std::uint64_t bytes) { maxBufferSize = bytes; }
    void setSharedMemorySupport(bool works) { supportsSharedMemory = works; }
    void setBindCollisionTestDisabled(int value) { bindCollisionTestDisabled = value; }

    // What goes wrong
    /// The `nth` call of `name` from now on, counted from 1, returns `code` and does nothing else than to
    /// null the handle that it should have made; with OXM_MPI_ERR_IN_STATUS it does its work and takes its
    /// statuses from setStatuses().
    void fail(const std::string& name, int nth, int code) { failures.push_back({name, nth, code}); }
    /// The `nth` call of any function from now on.
    void failAny(int nth, int code) { fail("", nth, code); }
    void setErrorText(int code, const std::string& text) { errorTexts[code] = text; }

    // What comes from outside
    /// A message on any communicator, for receives and probes. Unmatched receives complete as they are.
    virtual void deliver(int source, int tag, const void* data, std::size_t bytes) = 0;
    /// The next statuses that calls set, one after the other, before the driver makes its own again.
    void setStatuses(std::deque<OXM_MPI_Status_struct> next) { statuses = std::move(next); }
    /// What the next Waitany or Testany gives as index, with no request completed when it is undefined.
    void setIndex(int index) { nextIndex = index; }
    /// Non-blocking requests complete at the look after `looks` unsuccessful ones.
    void setLooks(int looks) { looksBeforeCompletion = looks; }
    /// Stands in the place of the driver's own work for `name`, and returns the code. An empty one ends that.
    using Action = std::function<int(const ScriptedCall&)>;
    void setAction(const std::string& name, Action action) { actions[name] = std::move(action); }
    /// The clock stands at `now` and moves on by `step` with each reading. Until then it is the real one.
    void setClock(double now, double step) {
        clock = now;
        clockStep = step;
    }

    // What was seen
    /// All calls in their order, the clock's and OXM_MPI_Get_max_buffer_size's left out.
    const std::vector<ScriptedCall>& calls() const { return _calls; }
    void clearCalls() { _calls.clear(); }
    int clockReadings() const { return _clockReadings; }
    /// Numbers of the handles that are alive, by kind, 0 left out: "comm", "group", "datatype", "op",
    /// "request", "file", "info".
    virtual std::map<std::string, int> liveHandles() const = 0;

    /// The texts of all calls, for comparisons.
    std::vector<std::string> texts() const { return list(&ScriptedCall::_text); }
    /// The names of all calls.
    std::vector<std::string> names() const { return list(&ScriptedCall::name); }
    /// The calls of one function.
    std::vector<ScriptedCall> callsOf(const std::string& name) const {
        std::vector<ScriptedCall> result;
        std::ranges::copy_if(calls(), std::back_inserter(result),
                             [&](const ScriptedCall& call) { return call.name == name; });
        return result;
    }

    // The script, for the driver

    struct Failure {
        std::string name; ///< empty: of any function
        int nth;
        int code;
    };

    std::string processorName = "scripted-host";
    std::uint64_t maxBufferSize = 0x7FFFFFFF;
    bool supportsSharedMemory = true;
    int bindCollisionTestDisabled = 0;
    int looksBeforeCompletion = 0;
    std::optional<int> nextIndex;
    std::optional<double> clock;
    double clockStep = 0.0;
    std::map<int, std::string> errorTexts;
    std::vector<Failure> failures;
    std::map<std::string, Action> actions;
    std::deque<OXM_MPI_Status_struct> statuses;

protected:
    std::vector<std::string> list(std::string ScriptedCall::*member) const {
        std::vector<std::string> result;
        std::ranges::transform(calls(), std::back_inserter(result), member);
        return result;
    }

    std::vector<ScriptedCall> _calls;
    int _clockReadings = 0;
};
