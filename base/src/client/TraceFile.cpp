#include "client/TraceFile.h"

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <map>
#include <ostream>
#include <type_traits>
#include <utility>

using TraceLayout::Record;

namespace {

constexpr std::size_t EVENT_SIZE = 160;     ///< of a record in the file, with its share of arrows [bytes]
constexpr std::size_t RESERVE = 1'000'000;  ///< for what isn't dropped [bytes]
constexpr std::size_t RANK_RESERVE = 1'000; ///< the same of a rank [bytes]

/// As a JSON text. Some readers take no control characters, in whatever form.
std::string quote(std::string_view text) {
    std::string quoted = "\"";
    for (const char c : text) {
        if (c == '"' || c == '\\')
            quoted += '\\';
        quoted += static_cast<unsigned char>(c) < 0x20 || c == 0x7F ? ' ' : c;
    }
    return quoted + '"';
}

/// In microseconds.
std::string timeOf(std::int64_t nanoseconds) {
    char text[40];
    std::snprintf(text, sizeof text, "%lld.%03lld", static_cast<long long>(nanoseconds / 1000),
                  static_cast<long long>(nanoseconds % 1000));
    return text;
}

/// As in "allReduce", for "AllReduce".
std::string nameOf(const TraceData::Rank& rank, const Record& record) {
    std::string name = rank.name(record.name);
    const bool isOfOurs = record.kind != TraceLayout::EVENT && record.kind != TraceLayout::COMMAND;
    if (isOfOurs && !name.empty())
        name[0] = static_cast<char>(std::tolower(static_cast<unsigned char>(name[0])));
    return name;
}

const char* categoryOf(std::uint8_t kind) {
    switch (static_cast<TraceLayout::Kind>(kind)) {
    case TraceLayout::EVENT:
        return "event";
    case TraceLayout::COMMAND:
        return "command";
    case TraceLayout::OPERATION:
    case TraceLayout::SEND:
    case TraceLayout::RECEIVE:
    case TraceLayout::BEGIN_SEND:
    case TraceLayout::BEGIN_RECEIVE:
    case TraceLayout::COMPLETE:
        return "message";
    case TraceLayout::COLLECTIVE:
    case TraceLayout::COLLECTIVE_MEETING:
    case TraceLayout::COLLECTIVE_FROM_ROOT:
    case TraceLayout::COLLECTIVE_TO_ROOT:
        return "collective";
    }
    return "other";
}

bool isRequest(const Record& record) {
    return record.kind == TraceLayout::BEGIN_SEND || record.kind == TraceLayout::BEGIN_RECEIVE;
}

template <class Values>
std::string listOf(const Values& values) {
    std::string text;
    for (const auto& value : values) {
        text += text.empty() ? "" : ",";
        if constexpr (std::is_convertible_v<decltype(value), std::string>)
            text += quote(value);
        else
            text += std::to_string(value);
    }
    return "[" + text + "]";
}

} // namespace

std::size_t TraceFile::getLimit(const std::vector<std::size_t>& counts) {
    std::vector<std::size_t> sorted = counts;
    std::sort(sorted.begin(), sorted.end());
    std::size_t room =
        (MAX_SIZE - RESERVE - RANK_RESERVE * std::min<std::size_t>(counts.size(), 50'000)) / EVENT_SIZE;
    std::size_t left = sorted.size();
    for (const std::size_t count : sorted) {
        if (count > room / left)
            return room / left;
        room -= count;
        --left;
    }
    return TraceLayout::MAX_RECORDS;
}

TraceFile::TraceFile(const TraceData& trace, std::ostream& output, std::size_t maxSize)
    : _trace(trace), _output(output), _maxSize(maxSize), _clock(trace), _matches(trace, _clock) {}

TraceFile::Summary TraceFile::write() {
    _summary = {};
    _summary.collectives = _matches.countCollectives();
    _summary.messages = _matches.countMessages();
    _summary.violations = _matches.countViolations();
    _summary.tolerance = _clock.getTolerance();
    _summary.unknownClocks = _clock.getUnknownHosts();
    sortFlows();
    const std::string head = "{\"displayTimeUnit\":\"ns\",\"traceEvents\":[\n";
    _output << head;
    _size = head.size();
    for (const TraceData::Rank& rank : _trace.ranks) {
        if (rank.answered)
            writeNames(rank);
        else
            _summary.silent.push_back(rank.rank);
    }
    for (std::size_t index = 0; index < _trace.ranks.size(); ++index)
        if (_trace.ranks[index].answered)
            writeRank(index);
    _output << "\n],\n";
    writeOtherData();
    return _summary;
}

/// @return false when the file is full
bool TraceFile::put(const std::string& event) {
    if (_size + event.size() + 2 > _maxSize)
        return false;
    _output << (_isFirst ? "" : ",\n") << event;
    _size += event.size() + 2;
    _isFirst = false;
    return true;
}

void TraceFile::writeNames(const TraceData::Rank& rank) {
    char number[16];
    std::snprintf(number, sizeof number, "%04u", rank.rank);
    const std::string process = ",\"pid\":" + std::to_string(mainThread(rank)) + ",\"args\":{";
    const std::string name =
        std::string("rank ") + number + " " + rank.host + " pid " + std::to_string(rank.pid);
    put(R"({"ph":"M","name":"process_name")" + process + "\"name\":" + quote(name) + "}}");
    put(R"({"ph":"M","name":"process_labels")" + process + "\"labels\":" + quote(rank.host) + "}}");
    put(R"({"ph":"M","name":"process_sort_index")" + process + "\"sort_index\":" + std::to_string(rank.rank) +
        "}}");
    nameThread(rank, commandThread(rank), "commands", 0);
    nameThread(rank, mainThread(rank), "main thread", 1);
}

void TraceFile::nameThread(const TraceData::Rank& rank, std::size_t thread, const char* name, int order) {
    const std::string place =
        ",\"pid\":" + std::to_string(mainThread(rank)) + ",\"tid\":" + std::to_string(thread) + ",\"args\":{";
    put(R"({"ph":"M","name":"thread_name")" + place + "\"name\":" + quote(name) + "}}");
    put(R"({"ph":"M","name":"thread_sort_index")" + place + "\"sort_index\":" + std::to_string(order) + "}}");
}

void TraceFile::writeRank(std::size_t index) {
    const TraceData::Rank& rank = _trace.ranks[index];
    _summary.seconds =
        std::max(_summary.seconds, static_cast<double>(_clock.toNanoseconds(rank, rank.end)) * 1e-9);
    const std::vector<Placed> all = place(rank);
    std::size_t dropped = rank.dropped;
    for (const Placed& placed : all) {
        if (put(bracket(rank, placed)))
            ++_summary.events;
        else
            ++dropped;
    }
    writeRequests(rank, all);
    writeFlows(index);
    if (dropped == 0)
        return;
    _summary.dropped += dropped;
    _summary.droppedFrom.push_back(rank.rank);
    const std::int64_t time = all.empty() ? 0 : all.back().end;
    put(R"({"ph":"i","s":"p","name":")" + std::to_string(dropped) + " events aren't in this file\",\"ts\":" +
        timeOf(time) + ",\"pid\":" + std::to_string(mainThread(rank)) +
        ",\"tid\":" + std::to_string(mainThread(rank)) + "}");
}

/// In the order of their begins, the outer ones before the inner ones.
std::vector<TraceFile::Placed> TraceFile::place(const TraceData::Rank& rank) const {
    std::vector<Placed> all;
    all.reserve(rank.records.size());
    for (std::size_t i = 0; i < rank.records.size(); ++i) {
        const Record& record = rank.records[i];
        all.push_back(
            {&record, i, _clock.toNanoseconds(rank, record.begin), _clock.toNanoseconds(rank, record.end)});
    }
    std::sort(all.begin(), all.end(), [](const Placed& a, const Placed& b) {
        if (a.record->begin != b.record->begin)
            return a.record->begin < b.record->begin;
        return a.record->end != b.record->end ? a.record->end > b.record->end : a.number > b.number;
    });
    return all;
}

std::string TraceFile::bracket(const TraceData::Rank& rank, const Placed& placed) const {
    const Record& record = *placed.record;
    const std::size_t thread = record.kind == TraceLayout::COMMAND ? commandThread(rank) : mainThread(rank);
    std::string text = R"({"ph":"X","name":)" + quote(nameOf(rank, record)) + ",\"cat\":\"" +
                       categoryOf(record.kind) + "\",\"ts\":" + timeOf(placed.begin) +
                       ",\"dur\":" + timeOf(placed.end - placed.begin) +
                       ",\"pid\":" + std::to_string(mainThread(rank)) + ",\"tid\":" + std::to_string(thread);
    const std::string arguments = argumentsOf(rank, record);
    return text + (arguments.empty() ? "}" : ",\"args\":{" + arguments + "}}");
}

std::string TraceFile::argumentsOf(const TraceData::Rank& rank, const Record& record) const {
    std::string text;
    const auto add = [&text](const char* key, const std::string& value) {
        text += std::string(text.empty() ? "\"" : ",\"") + key + "\":" + value;
    };
    if (record.communicator != 0)
        add("communicator", quote(rank.name(record.communicator)));
    if (record.number != 0)
        add("number", std::to_string(record.number));
    if (record.bytes != 0)
        add("bytes", std::to_string(record.bytes));
    if (record.partner >= 0)
        add(record.kind >= TraceLayout::COLLECTIVE ? "root" : "partner", std::to_string(record.partner));
    if ((record.flags & TraceLayout::CUT_BEGIN) != 0)
        add("beganBefore", "true");
    if ((record.flags & TraceLayout::CUT_END) != 0)
        add("endedAfter", "true");
    return text;
}

/// From the begin of a request to the end of the operation that completes its stack.
void TraceFile::writeRequests(const TraceData::Rank& rank, const std::vector<Placed>& all) {
    std::map<std::uint32_t, std::vector<const Placed*>> begun; // by stack
    const auto count = [this](bool isWritten) { ++(isWritten ? _summary.events : _summary.dropped); };
    for (const Placed& placed : all) {
        if (isRequest(*placed.record)) {
            begun[placed.record->requests].push_back(&placed);
        } else if (placed.record->kind == TraceLayout::COMPLETE) {
            for (const Placed* const request : std::exchange(begun[placed.record->requests], {}))
                count(writeRequest(rank, *request, placed.end, false));
        }
    }
    for (const auto& [stack, requests] : begun)
        for (const Placed* const request : requests)
            count(writeRequest(rank, *request, _clock.toNanoseconds(rank, rank.end), true));
}

bool TraceFile::writeRequest(const TraceData::Rank& rank, const Placed& begun, std::int64_t end,
                             bool isOpen) {
    const std::string what = R"("cat":"request","name":)" + quote(nameOf(rank, *begun.record)) +
                             ",\"id\":\"" + std::to_string(++_requests) +
                             "\",\"pid\":" + std::to_string(mainThread(rank)) +
                             ",\"tid\":" + std::to_string(mainThread(rank)) + ",\"ts\":";
    std::string arguments = argumentsOf(rank, *begun.record);
    if (isOpen && (begun.record->flags & TraceLayout::CUT_END) == 0)
        arguments += (arguments.empty() ? "" : ",") + std::string("\"endedAfter\":true");
    return put(R"({"ph":"b",)" + what + timeOf(begun.begin) + ",\"args\":{" + arguments + "}},\n" +
               R"({"ph":"e",)" + what + timeOf(std::max(begun.begin, end)) + "}");
}

/// An arrow ends inside of its bracket, and never before it begins.
void TraceFile::sortFlows() {
    _arrows.resize(_trace.ranks.size());
    const std::vector<TraceMatches::Flow>& flows = _matches.getFlows();
    for (std::size_t number = 0; number < flows.size(); ++number) {
        const TraceMatches::Flow& flow = flows[number];
        const auto timeAt = [this](const TraceMatches::Place& place, bool isEnd) {
            const TraceData::Rank& rank = _trace.ranks[place.rank];
            const std::int64_t begin = _clock.toNanoseconds(rank, rank.records[place.record].begin);
            const std::int64_t end = _clock.toNanoseconds(rank, rank.records[place.record].end);
            return isEnd ? std::max(begin, end - 1) : begin;
        };
        std::vector<std::pair<std::int64_t, std::size_t>> ends; // with the rank
        for (const TraceMatches::Place& place : flow.to)
            ends.emplace_back(timeAt(place, true), place.rank);
        std::sort(ends.begin(), ends.end());
        const std::int64_t begin = timeAt(flow.from, false);
        if (ends.front().first < begin)
            continue; // counted as a violation, or too short to be seen
        _arrows[flow.from.rank].push_back({begin, 's', number});
        for (const auto& [time, rank] : ends)
            _arrows[rank].push_back({time, &rank == &ends.back().second ? 'f' : 't', number});
    }
}

void TraceFile::writeFlows(std::size_t index) {
    const std::string thread = std::to_string(mainThread(_trace.ranks[index]));
    for (const Arrow& arrow : _arrows[index]) {
        const bool isCollective = _matches.getFlows()[arrow.flow].isCollective;
        std::string line = R"({"ph":")";
        line.append(1, arrow.phase).append(R"(","cat":"flow","name":")");
        line.append(isCollective ? "last to come" : "message").append(R"(","id":)");
        line.append(std::to_string(arrow.flow + 1)).append(arrow.phase == 's' ? "" : R"(,"bp":"e")");
        line.append(",\"ts\":").append(timeOf(arrow.time)).append(",\"pid\":").append(thread);
        put(line.append(",\"tid\":").append(thread).append("}"));
    }
}

void TraceFile::writeOtherData() {
    char tolerance[32];
    std::snprintf(tolerance, sizeof tolerance, "%.3f", _summary.tolerance * 1e6);
    char seconds[32];
    std::snprintf(seconds, sizeof seconds, "%.6f", _summary.seconds);
    std::map<std::string, std::size_t> hosts;
    for (const TraceData::Rank& rank : _trace.ranks)
        ++hosts[rank.host];
    _output << "\"otherData\":{\"product\":" << quote(_trace.product)
            << ",\"session\":" << quote(_trace.session) << ",\"ranks\":" << _trace.ranks.size()
            << ",\"hosts\":" << hosts.size() << ",\"seconds\":" << seconds
            << ",\"events\":" << _summary.events << ",\"dropped\":" << _summary.dropped
            << ",\"droppedFrom\":" << listOf(_summary.droppedFrom)
            << ",\"silentRanks\":" << listOf(_summary.silent) << ",\"collectives\":" << _summary.collectives
            << ",\"messages\":" << _summary.messages << ",\"violations\":" << _summary.violations
            << ",\"toleranceMicroseconds\":" << tolerance
            << ",\"hostsWithUnknownClock\":" << listOf(_summary.unknownClocks) << "}}\n";
}
