#include "client/TraceFile.h"

#include "client/TraceData.h"

#include <gtest/gtest.h>

#include <sstream>
#include <string>
#include <vector>

namespace {

using TraceLayout::Record;

/// A record with a name number, in ticks of a nanosecond.
Record record(TraceLayout::Kind kind, std::uint64_t begin, std::uint64_t end, std::uint32_t name,
              unsigned flags = 0) {
    Record record{};
    record.kind = kind;
    record.begin = begin;
    record.end = end;
    record.name = name;
    record.partner = -1;
    record.epoch = 3;
    record.flags = static_cast<std::uint8_t>(flags);
    return record;
}

Record message(TraceLayout::Kind kind, std::uint64_t begin, std::uint64_t end, std::uint32_t name,
               int partner, std::uint32_t requests = 0) {
    Record message = record(kind, begin, end, name);
    message.communicator = 1;
    message.group = 7;
    message.partner = partner;
    message.bytes = 8;
    message.tag = 5;
    message.requests = requests;
    return message;
}

Record meeting(std::uint64_t begin, std::uint64_t end, std::uint32_t number) {
    Record meeting = message(TraceLayout::COLLECTIVE_MEETING, begin, end, 2, -1);
    meeting.tag = 0;
    meeting.number = number;
    return meeting;
}

TraceData::Rank rank(unsigned number, const std::string& host, std::vector<Record> records) {
    TraceData::Rank rank;
    rank.rank = number;
    rank.host = host;
    rank.pid = 40 + number;
    rank.answered = true;
    rank.begin = 1'000'000;
    rank.end = 1'020'000;
    rank.epoch = 2;
    rank.ticksPerSecond = 1e9;
    rank.names = {"(others)", "global, 2 ranks", "AllReduce", "Class::\"a\"\n",
                  "Solve",    "iRecv",           "Wait",      "Send"};
    rank.records = std::move(records);
    return rank;
}

TraceData traceOf(std::vector<TraceData::Rank> ranks) {
    return {"Product 1", "session", std::move(ranks)};
}

struct Written {
    std::string text;
    TraceFile::Summary summary;
};

Written write(const TraceData& trace, std::size_t maxSize = TraceFile::MAX_SIZE) {
    std::ostringstream output;
    Written written;
    written.summary = TraceFile(trace, output, maxSize).write();
    written.text = output.str();
    return written;
}

/// The lines of the events that aren't names.
std::string eventsIn(const std::string& text) {
    std::istringstream lines(text);
    std::string events;
    for (std::string line; std::getline(lines, line);)
        if (line.starts_with(R"({"ph")") && !line.starts_with(R"({"ph":"M")"))
            events += line + "\n";
    return events;
}

} // namespace

TEST(TraceFile, WritesTheNamesOfARank) {
    EXPECT_EQ(write(traceOf({rank(0, "node", {})})).text,
              R"({"displayTimeUnit":"ns","traceEvents":[
{"ph":"M","name":"process_name","pid":1,"args":{"name":"rank 0000 node pid 40"}},
{"ph":"M","name":"process_labels","pid":1,"args":{"labels":"node"}},
{"ph":"M","name":"process_sort_index","pid":1,"args":{"sort_index":0}},
{"ph":"M","name":"thread_name","pid":1,"tid":2,"args":{"name":"commands"}},
{"ph":"M","name":"thread_sort_index","pid":1,"tid":2,"args":{"sort_index":0}},
{"ph":"M","name":"thread_name","pid":1,"tid":1,"args":{"name":"main thread"}},
{"ph":"M","name":"thread_sort_index","pid":1,"tid":1,"args":{"sort_index":1}}
],
"otherData":{"product":"Product 1","session":"session","ranks":1,"hosts":1,"seconds":0.000020,"events":0,"dropped":0,"droppedFrom":[],"silentRanks":[],"collectives":0,"messages":0,"violations":0,"toleranceMicroseconds":0.000,"hostsWithUnknownClock":[]}}
)");
}

TEST(TraceFile, WritesBracketsTheOuterOnesFirst) {
    const TraceData trace =
        traceOf({rank(0, "node",
                      {record(TraceLayout::EVENT, 1'002'000, 1'003'001, 3),
                       record(TraceLayout::EVENT, 1'002'000, 1'003'001, 0), meeting(1'003'001, 1'004'000, 9),
                       record(TraceLayout::COMMAND, 1'000'000, 1'020'000, 4,
                              TraceLayout::CUT_BEGIN | TraceLayout::CUT_END)})});
    EXPECT_EQ(
        eventsIn(write(trace).text),
        R"json({"ph":"X","name":"Solve","cat":"command","ts":0.000,"dur":20.000,"pid":1,"tid":2,"args":{"beganBefore":true,"endedAfter":true}},
{"ph":"X","name":"(others)","cat":"event","ts":2.000,"dur":1.001,"pid":1,"tid":1},
{"ph":"X","name":"Class::\"a\" ","cat":"event","ts":2.000,"dur":1.001,"pid":1,"tid":1},
{"ph":"X","name":"allReduce","cat":"collective","ts":3.001,"dur":0.999,"pid":1,"tid":1,"args":{"communicator":"global, 2 ranks","number":9,"bytes":8}}
)json");
}

TEST(TraceFile, RequestsAreAsynchronousUntilTheirStackIsComplete) {
    const TraceData trace =
        traceOf({rank(0, "node",
                      {message(TraceLayout::BEGIN_RECEIVE, 1'001'000, 1'001'100, 5, 1, 77),
                       message(TraceLayout::BEGIN_RECEIVE, 1'001'200, 1'001'300, 5, 1, 78),
                       message(TraceLayout::COMPLETE, 1'002'000, 1'003'000, 6, -1, 77)})});
    const Written written = write(trace);
    EXPECT_EQ(written.summary.events, 5u);
    EXPECT_NE(
        written.text.find(R"({"ph":"e","cat":"request","name":"iRecv","id":"1","pid":1,"tid":1,"ts":3.000})"),
        std::string::npos);
    EXPECT_NE(written.text.find(R"("bytes":8,"partner":1,"endedAfter":true}},
{"ph":"e","cat":"request","name":"iRecv","id":"2","pid":1,"tid":1,"ts":20.000})"),
              std::string::npos);
}

TEST(TraceFile, AnArrowLeadsFromTheLastRankToTheOthers) {
    const TraceData trace = traceOf({rank(0, "node", {meeting(1'001'000, 1'006'000, 1)}),
                                     rank(1, "node", {meeting(1'005'000, 1'005'500, 1)})});
    const Written written = write(trace);
    EXPECT_EQ(written.summary.collectives, 1u);
    EXPECT_EQ(written.summary.violations, 0u);
    const std::string events = eventsIn(written.text);
    EXPECT_NE(
        events.find(
            R"({"ph":"f","cat":"flow","name":"last to come","id":1,"bp":"e","ts":5.999,"pid":1,"tid":1})"),
        std::string::npos);
    EXPECT_NE(
        events.find(R"({"ph":"s","cat":"flow","name":"last to come","id":1,"ts":5.000,"pid":2,"tid":2})"),
        std::string::npos);
}

TEST(TraceFile, CountsEndsBeforeTheBeginThatTheyNeed) {
    const Record early = message(TraceLayout::RECEIVE, 1'001'000, 1'002'000, 4, 1);
    Record known = early;
    known.epoch = 2; // of a command that began before the span
    struct Row {
        Record receive;
        std::uint64_t sent;
        std::size_t messages;
        std::size_t violations;
    };
    for (const Row& row :
         {Row{early, 1'001'900, 1, 0}, Row{early, 1'002'001, 1, 1}, Row{known, 1'002'001, 0, 0}}) {
        Record send = message(TraceLayout::SEND, row.sent, row.sent + 10, 7, 0);
        send.epoch = row.receive.epoch;
        const Written written = write(traceOf({rank(0, "node", {row.receive}), rank(1, "node", {send})}));
        EXPECT_EQ(written.summary.messages, row.messages);
        EXPECT_EQ(written.summary.violations, row.violations) << row.sent;
    }
    const Written apart = write(traceOf({rank(0, "node", {meeting(1'001'000, 1'002'000, 1)}),
                                         rank(1, "node", {meeting(1'003'000, 1'004'000, 1)})}));
    EXPECT_EQ(apart.summary.violations, 1u);
}

TEST(TraceFile, BringsTheClocksOfHostsToOne) {
    // The second host is a second ahead, and runs faster by a tenth of a per mille.
    TraceData::Rank other = rank(1, "other", {});
    const auto far = [](std::uint64_t own) { return 1'000'000'000 + own + own / 10'000; };
    for (const std::uint64_t own : {std::uint64_t(0), std::uint64_t(2'000'000'000)})
        other.clock.push_back({far(own), own, 300});
    other.begin = far(1'000'000);
    other.end = far(1'020'000);
    TraceData trace = traceOf({rank(0, "node", {}), other});
    const TraceClock clock(trace);
    EXPECT_EQ(clock.toNanoseconds(trace.ranks[0], 1'010'000), 10'000);
    EXPECT_EQ(clock.toNanoseconds(trace.ranks[1], far(1'010'000)), 10'000);
    EXPECT_NEAR(clock.getTolerance(), 300e-9, 1e-12);
    EXPECT_TRUE(clock.getUnknownHosts().empty());
    trace.ranks[1].clock.clear();
    EXPECT_EQ(TraceClock(trace).getUnknownHosts(), std::vector<std::string>{"other"});
}

TEST(TraceFile, MovesAHostWithinItsTolerance) {
    // The meeting says that the other host is late by at least 1.5 us.
    for (const auto& [tolerance, violations] : {std::pair(2'000u, 0u), std::pair(1'000u, 2u)}) {
        TraceData::Rank other = rank(1, "other", {meeting(1'003'500, 1'004'000, 1)});
        other.clock = {{1'000'000, 1'000'000, tolerance}};
        const Written written = write(traceOf({rank(0, "node", {meeting(1'001'000, 1'002'000, 1)}), other}));
        EXPECT_EQ(written.summary.violations, violations);
    }
}

TEST(TraceFile, AFullFileTellsWhatIsMissing) {
    std::vector<Record> many(100, record(TraceLayout::EVENT, 1'001'000, 1'002'000, 3));
    TraceData trace = traceOf({rank(0, "node", many), rank(1, "node", many)});
    trace.ranks[0].dropped = 5;
    const Written written = write(trace, 14'000);
    EXPECT_EQ(written.summary.events + written.summary.dropped, 205u);
    EXPECT_EQ(written.summary.droppedFrom, (std::vector<unsigned>{0, 1}));
    EXPECT_LT(written.text.size(), 14'600u);
    EXPECT_EQ(TraceFile::getLimit({10, 2'000'000, 20}), TraceFile::getLimit({2'000'000}) - 30 - 12);
    EXPECT_EQ(TraceFile::getLimit({10, 20}), TraceLayout::MAX_RECORDS);
}
