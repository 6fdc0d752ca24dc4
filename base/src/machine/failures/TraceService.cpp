#include "machine/failures/TraceService.h"

#include "machine/MachineGround.h"
#include "machine/MachineHost.h"
#include "machine/failures/ParallelErrorHandler.h"
#include "machine/hosts/HostClocks.h"
#include "machine/reports/TraceRecorder.h"

#include "kernel/Error.h"
#include "kernel/OrvexVersion.h"
#include "kernel/Properties.h"
#include "kernel/Raise.h"
#include "platform/Base64Encoder.h"
#include "platform/Log.h"
#include "platform/TickClock.h"
#include "xmlrpc/XmlRpcFanOut.h"
#include "xmlrpc/XmlRpcServerMethod.h"
#include "xmlrpc/XmlRpcValue.h"

#include <algorithm>
#include <cmath>
#include <utility>

using XmlRpc::XmlRpcFanOut;
using XmlRpc::XmlRpcServerMethod;
using XmlRpc::XmlRpcValue;

namespace {

constexpr double ANSWER_TIME = 4.0; ///< [s] of one rank
constexpr double TOTAL_TIME = 8.0;  ///< [s] of all
constexpr std::size_t MAX_OWNER_SIZE = 200;
/// Of a large job no more can be shown than of a small one, but a rank that works more than others has room.
constexpr std::size_t RECORDS_OF_ALL = 4'000'000;
constexpr std::size_t LEAST_RECORDS = 20'000;

std::size_t recordsOfRank() {
    return std::clamp<std::size_t>(RECORDS_OF_ALL / MachineGround::nProcesses(), LEAST_RECORDS,
                                   TraceLayout::MAX_RECORDS);
}

std::uint64_t ticksIn(const XmlRpcValue& value) {
    return static_cast<std::uint64_t>(value.getI8());
}

XmlRpcValue toValue(std::uint64_t ticks) {
    return XmlRpcValue(static_cast<std::int64_t>(ticks));
}

std::uint64_t traceIn(const XmlRpcValue& parameters) {
    return ticksIn(parameters.getArray().at(0));
}

std::vector<std::string> textsIn(const XmlRpcValue& array) {
    std::vector<std::string> texts;
    for (const XmlRpcValue& text : array.getArray())
        texts.push_back(text.getString());
    return texts;
}

const XmlRpcValue& valueOf(const XmlRpcValue& structure, const char* name) {
    static const XmlRpcValue NOTHING;
    const XmlRpcValue* const value = structure.find(name);
    return value ? *value : NOTHING;
}

/// The end of a trace on one rank, as the client gets it.
void take(const XmlRpcValue& summary, Properties& rank) {
    for (const char* key : {"records", "dropped", "names", "begin", "end", "epoch"})
        rank.set(key, ticksIn(valueOf(summary, key)));
    rank.set("ticksPerSecond", valueOf(summary, "ticksPerSecond").getDouble());
    std::vector<Properties> clock;
    for (const XmlRpcValue& point : valueOf(summary, "clock").getArray()) {
        Properties& each = clock.emplace_back();
        each.set("own", ticksIn(point.getArray().at(0)));
        each.set("master", ticksIn(point.getArray().at(1)));
        each.set("tolerance", ticksIn(point.getArray().at(2)));
    }
    if (!clock.empty())
        rank.set("clock", clock);
}

} // namespace

/// Begins a trace on this rank.
class TraceService::BeginCmd : public XmlRpcServerMethod {
public:
    BeginCmd() : XmlRpcServerMethod("TraceBegin") {}
    void execute(const XmlRpcValue& parameters, XmlRpcValue& result) override {
        const double seconds = parameters.getArray().at(1).getDouble();
        TraceRecorder::getSingleton().begin(traceIn(parameters), seconds, recordsOfRank());
        result = XmlRpcValue(0);
    }
};

/// Ends it, and tells how much was taken down.
class TraceService::EndCmd : public XmlRpcServerMethod {
public:
    EndCmd() : XmlRpcServerMethod("TraceEnd") {}
    void execute(const XmlRpcValue& parameters, XmlRpcValue& result) override {
        const TraceRecorder::Summary summary = TraceRecorder::getSingleton().end(traceIn(parameters));
        result.set("records", toValue(summary.records));
        result.set("dropped", toValue(summary.dropped));
        result.set("names", toValue(summary.names));
        result.set("begin", toValue(summary.begin));
        result.set("end", toValue(summary.end));
        result.set("epoch", toValue(summary.epoch));
        result.set("ticksPerSecond", XmlRpcValue(Platform::TickClock::getTicksPerSecond()));
        XmlRpcValue::Array clock;
        for (const HostClocks::Point& point : HostClocks::getPoints())
            clock.emplace_back(
                XmlRpcValue::Array{toValue(point.own), toValue(point.master), toValue(point.tolerance)});
        result.set("clock", XmlRpcValue(std::move(clock)));
    }
};

/// Gives a piece of what was taken down.
class TraceService::FetchCmd : public XmlRpcServerMethod {
public:
    FetchCmd() : XmlRpcServerMethod("TraceFetch") {}
    void execute(const XmlRpcValue& parameters, XmlRpcValue& result) override {
        const std::uint64_t trace = traceIn(parameters);
        const std::uint64_t from = ticksIn(parameters.getArray().at(1));
        const std::uint64_t count =
            std::min<std::uint64_t>(ticksIn(parameters.getArray().at(2)), TraceLayout::MAX_PIECE);
        TraceRecorder& recorder = TraceRecorder::getSingleton();
        XmlRpcValue::Array names;
        for (std::string& name :
             recorder.fetchNames(trace, ticksIn(parameters.getArray().at(3)), TraceLayout::MAX_NAMES_PIECE))
            names.emplace_back(std::move(name));
        result.set("names", XmlRpcValue(std::move(names)));
        result.set("records", XmlRpcValue::makeBase64(recorder.fetchRecords(trace, from, count)));
    }
};

/// Gives its memory back.
class TraceService::ReleaseCmd : public XmlRpcServerMethod {
public:
    ReleaseCmd() : XmlRpcServerMethod("TraceRelease") {}
    void execute(const XmlRpcValue& parameters, XmlRpcValue& result) override {
        TraceRecorder::getSingleton().release(traceIn(parameters));
        result = XmlRpcValue(0);
    }
};

TraceService::TraceService(ParallelErrorHandler* channel)
    : _channel(channel), _hosts(MachineGround::nProcesses()), _pids(MachineGround::nProcesses()),
      _begin(std::make_unique<BeginCmd>()), _end(std::make_unique<EndCmd>()),
      _fetch(std::make_unique<FetchCmd>()), _release(std::make_unique<ReleaseCmd>()) {
    for (const auto& [host, process] : MachineGround::getHost().getHostPidMap()) {
        _hosts.at(process.second) = host;
        _pids.at(process.second) = process.first;
    }
    static_cast<void>(TraceRecorder::getSingleton());
    if (!_channel)
        return;
    for (XmlRpcServerMethod* const method : {_begin.get(), _end.get(), _fetch.get(), _release.get()})
        _channel->addMethod(*method);
}

TraceService::~TraceService() = default;

void TraceService::tick() {
    TraceRecorder::getSingleton().tick();
}

Properties TraceService::answer(const Properties& request) {
    const std::string action = request.getString("action");
    if (action == "begin")
        return begin(request);
    if (action != "end" && action != "fetch" && action != "release")
        raise(InputError("\"" + action +
                         "\" is no action of a trace: these are begin, end, fetch and release"));
    expect(request);
    return action == "end" ? end(request) : action == "fetch" ? fetch(request) : release(request);
}

Properties TraceService::begin(const Properties& request) {
    const double seconds = request.getReal("seconds");
    if (!(seconds > 0.0 && seconds <= TraceLayout::MAX_SECONDS))
        raise(InputError("A trace lasts more than 0 s and at most " +
                         std::to_string(std::lround(TraceLayout::MAX_SECONDS)) + " s"));
    refuseWhileBusy();
    _owner = request.getOr("client", "a client").substr(0, MAX_OWNER_SIZE);
    _seconds = seconds;
    _began = _asked = Clock::now();
    _isTaken = true;
    ++_trace;
    const XmlRpcValue parameters(XmlRpcValue::Array{toValue(_trace), XmlRpcValue(seconds + EXTRA_TIME)});
    const auto answers = callAll(*_begin, parameters);
    std::vector<unsigned> silent;
    for (unsigned rank = 0; rank < answers.size(); ++rank)
        if (!answers[rank])
            silent.push_back(rank);
    Properties answer;
    answer.set("trace", _trace);
    answer.set("ranks", MachineGround::nProcesses());
    answer.set("silent", silent);
    return answer;
}

void TraceService::refuseWhileBusy() {
    const Clock::time_point now = Clock::now();
    const auto since = [now](Clock::time_point time) {
        return std::chrono::duration<double>(now - time).count();
    };
    const bool isForgotten = since(_asked) > IDLE_TIME && since(_began) > _seconds + EXTRA_TIME;
    if (!_isTaken || isForgotten)
        return;
    raise(InputError("Another trace of this session is being taken: for " + _owner + ", since " +
                     std::to_string(std::lround(since(_began))) + " s. There is one at a time"));
}

/// The request is about the trace of the client who has it.
void TraceService::expect(const Properties& request) {
    if (!_isTaken || request.getUnsignedInt("trace") != _trace)
        raise(InputError("This trace isn't known any more: it was released, or another one was begun"));
    _asked = Clock::now();
}

Properties TraceService::end(const Properties&) {
    const auto summaries = callAll(*_end, XmlRpcValue(XmlRpcValue::Array{toValue(_trace)}));
    std::vector<Properties> ranks;
    for (unsigned rank = 0; rank < summaries.size(); ++rank) {
        Properties& each = ranks.emplace_back();
        each.set("rank", rank);
        each.set("host", _hosts[rank]);
        each.set("pid", _pids[rank]);
        try {
            if (summaries[rank])
                take(*summaries[rank], each);
        } catch (const std::exception& error) { // without the number of its records it counts as silent
            OS::Log::instance("Default").warning("TraceService::end", "Rank @0@: @1@", rank, error.what());
        }
    }
    Properties answer;
    answer.set("trace", _trace);
    answer.set("product", OrvexVersion::getVersionedProductName());
    answer.set("recordSize", sizeof(TraceLayout::Record));
    answer.set("ranks", ranks);
    return answer;
}

Properties TraceService::fetch(const Properties& request) {
    const unsigned rank = request.getUnsignedInt("rank");
    if (rank >= MachineGround::nProcesses())
        raise(InputError("There is no rank " + std::to_string(rank)));
    const auto number = [&](const char* key, unsigned otherwise) {
        return toValue(request.getOr(key, otherwise));
    };
    const auto piece = callOne(
        *_fetch, rank,
        XmlRpcValue(XmlRpcValue::Array{toValue(_trace), number("from", 0),
                                       number("count", TraceLayout::MAX_PIECE), number("namesFrom", 0)}));
    if (!piece)
        raise(InputError("Rank " + std::to_string(rank) +
                         " gives no records: it doesn't answer, or the trace is "
                         "gone there"));
    Properties answer;
    answer.set("records", Base64Encoder::encode(valueOf(*piece, "records").getString()));
    answer.set("names", textsIn(valueOf(*piece, "names")));
    return answer;
}

Properties TraceService::release(const Properties&) {
    _isTaken = false;
    static_cast<void>(callAll(*_release, XmlRpcValue(XmlRpcValue::Array{toValue(_trace)})));
    return {};
}

/// @return the answers by rank; nothing for one that doesn't answer
std::vector<std::optional<XmlRpcValue>> TraceService::callAll(XmlRpcServerMethod& method,
                                                              const XmlRpcValue& parameters) const {
    std::vector<std::optional<XmlRpcValue>> results(MachineGround::nProcesses());
    const unsigned own = MachineGround::getPartitionId();
    XmlRpcFanOut fanOut;
    std::vector<XmlRpcFanOut::Call> calls;
    std::vector<unsigned> ranks;
    if (_channel) {
        const std::vector<ParallelErrorHandler::Place>& places = _channel->getPlaces();
        fanOut.setSecret(_channel->getSecret());
        for (unsigned rank = 0; rank < places.size(); ++rank)
            if (rank != own) {
                calls.push_back({places[rank].host, places[rank].port, method.getName(), parameters});
                ranks.push_back(rank);
            }
    }
    results[own] = callOne(method, own, parameters);
    const std::vector<XmlRpcFanOut::Answer> answers = fanOut.call(calls, TOTAL_TIME, ANSWER_TIME);
    for (std::size_t i = 0; i < answers.size(); ++i) {
        if (answers[i].answered)
            results[ranks[i]] = answers[i].result;
        else
            OS::Log::instance("Default").warning("TraceService::callAll", "@0@: rank @1@ doesn't answer",
                                                 method.getName(), ranks[i]);
    }
    return results;
}

/// This rank needs no channel.
std::optional<XmlRpcValue> TraceService::callOne(XmlRpcServerMethod& method, unsigned rank,
                                                 const XmlRpcValue& parameters) const {
    if (rank == MachineGround::getPartitionId()) {
        XmlRpcValue result;
        try {
            method.execute(parameters, result);
        } catch (const std::exception& error) {
            OS::Log::instance("Default").warning("TraceService::callOne", "@0@: @1@", method.getName(),
                                                 error.what());
            return std::nullopt;
        }
        return result;
    }
    const ParallelErrorHandler::Place& place = _channel->getPlaces().at(rank);
    XmlRpcFanOut fanOut;
    fanOut.setSecret(_channel->getSecret());
    const auto answers =
        fanOut.call({{place.host, place.port, method.getName(), parameters}}, ANSWER_TIME, ANSWER_TIME);
    if (!answers.front().answered)
        return std::nullopt;
    return answers.front().result;
}
