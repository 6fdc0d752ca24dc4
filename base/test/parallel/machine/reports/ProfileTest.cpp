// The parts of a profile that the ranks make together, on two hosts that they claim: even ranks on "a", odd
// ones on "b".

#include "machine/Communicator.h"
#include "machine/Machine.h"
#include "machine/MpiStatisticsManager.h"
#include "machine/TimeLoggerManager.h"
#include "machine/reports/MemoryHistory.h"
#include "machine/reports/ProfileCalls.h"
#include "machine/reports/ProfileHosts.h"
#include "machine/reports/ProfileMemory.h"
#include "machine/reports/ProfileMessages.h"
#include "machine/reports/ProfileSpans.h"

#include "kernel/Properties.h"

#include "parallel/machine/hosts/MachineHostTestAccess.h"
#include "unit/machine/MachineTestAccess.h"
#include "unit/machine/reports/EventClock.h"

#include <gtest/gtest.h>

namespace {

class ProfileOfJob : public testing::Test {
protected:
    ProfileOfJob()
        : _claimed(MachineHostTestAccess::claim(_me % 2 == 0 ? "a" : "b")),
          _real(MachineTestAccess::swapHost(_claimed.get())) {}
    ~ProfileOfJob() override {
        MachineTestAccess::swapHost(_real);
        MpiStatisticsManager::disable(false);
        MpiStatisticsManager::destroySingleton();
    }

    /// A list with the value of each rank.
    template <class Value>
    std::string list(Value value) const {
        std::string text = "[";
        for (unsigned rank = 0; rank < _ranks; ++rank)
            text += (rank == 0 ? "" : ",") + value(rank);
        return text + ']';
    }
    /// The list of `value` from all hosts, of each the sum over its ranks.
    std::vector<long long> sumByHost(long long (*value)(unsigned rank)) const {
        std::vector<long long> sums(_ranks > 1 ? 2 : 1);
        for (unsigned rank = 0; rank < _ranks; ++rank)
            sums[rank % 2] += value(rank);
        return sums;
    }
    /// The tree on the master; the others have none.
    void expect(const Properties& part, const std::string& text) const {
        EXPECT_EQ(part.toString(), _me == 0 ? text : "{}");
    }

    const unsigned _me = Machine::getPartitionId();
    const unsigned _ranks = Machine::nProcesses();

private:
    std::unique_ptr<MachineHost> _claimed;
    const MachineHost* _real;
};

TEST_F(ProfileOfJob, TellsWhatTheRanksDidInCommands) {
    const CommandMeter::Cost total{4.0 + _me, 1.0 / 3.0, _me * 0.5, 0.0, 9e9, -1.0, _me * 2.0, 1e15};
    const std::string seconds = std::to_string(3 + _ranks) + ".0";
    const auto same = [&](const char* value) { return list([&](unsigned) { return std::string(value); }); };
    const std::string waiting =
        list([](unsigned rank) { return std::to_string(rank / 2) + (rank % 2 == 0 ? ".0" : ".5"); });
    expect(ProfileSpans::gather(total, 7.0),
           R"({"seconds":)" + seconds + R"(,"waiting":)" + waiting + R"(,"processor":)" + same("0.33333") +
               R"(,"memory":)" + same("7") + R"(,"peakMemory":)" + same("9000000000") + R"(,"messages":)" +
               list([](unsigned rank) { return std::to_string(2 * rank); }) + R"(,"bytes":)" +
               same("1000000000000000") + "}");
    CommandMeter::Cost lent = total;
    lent.lent = _me == 0 ? 1.5 : 0.0;
    const Properties part = ProfileSpans::gather(lent, 7.0);
    std::vector<double> times;
    if (_me == 0)
        part.get("lent", times);
    EXPECT_EQ(times.size(), _me == 0 ? _ranks : 0);
}

TEST_F(ProfileOfJob, TellsTheCallsOfEachRank) {
    EventClock::wall = EventClock::processor = 0.0;
    TimeLoggerManager manager(0.01, EventClock::makeTimer);
    manager.switchOn();
    for (unsigned i = 0; i <= _me; ++i) {
        manager.startEventLog("Step", "run");
        if (_me + 1 == _ranks)
            manager.startEventLog("Last", "only");
        EventClock::pass(0.5);
        manager.stopEventLog("Last", "only");
        manager.stopEventLog("Step", "run");
    }
    if (_me + 1 == _ranks)
        manager.startEventLog("Open", "now");
    const auto last = [&](const char* value, const char* others) {
        return list([&](unsigned rank) { return std::string(rank + 1 == _ranks ? value : others); });
    };
    const std::string n = std::to_string(_ranks);
    const std::string half = Properties("{\"x\":" + std::to_string(0.5 * _ranks) + "}").toString();
    const std::string time = half.substr(5, half.size() - 6);
    const std::string open = R"({"name":"Open::now","parent":-1,"count":)" + last("1", "0") +
                             R"(,"seconds":)" + last("0.0", "0.0") + R"(,"open":true})";
    const std::string step =
        R"({"name":"Step::run","parent":-1,"count":)" +
        list([](unsigned rank) { return std::to_string(rank + 1); }) + R"(,"seconds":)" +
        list([](unsigned rank) { return std::to_string((rank + 1) / 2) + (rank % 2 == 0 ? ".5" : ".0"); }) +
        R"(,"open":false})";
    const auto only = [&](int parent) {
        return R"({"name":"Last::only","parent":)" + std::to_string(parent) + R"(,"count":)" +
               last(n.c_str(), "0") + R"(,"seconds":)" + last(time.c_str(), "0.0") + R"(,"open":false})";
    };
    const std::string begin = R"({"on":true,"seconds":0.5,"list":[)";
    expect(ProfileCalls::gather(&manager), begin + open + "," + step + "," + only(1) + R"(],"left":0})");
    if (_ranks > 1) // room for one call
        expect(ProfileCalls::gather(&manager, 2 * _ranks - 1), begin + step + R"(],"left":2})");
    // One rank that measures nothing: what the others know is told, but the profile isn't on.
    const Properties part = ProfileCalls::gather(_me + 1 == _ranks ? nullptr : &manager);
    EXPECT_FALSE(part.getOr("on", false));
}

TEST_F(ProfileOfJob, SumsTheMessagesAndTellsThePartners) {
    MpiStatisticsManager::enable(false);
    for (unsigned i = 0; i <= _me; ++i)
        MpiStatisticsManager::openGlobalEvent("All", 100)->close();
    // Rank r sends r + 1 messages to the next, and gets one from it by an exchange.
    const unsigned next = (_me + 1) % _ranks;
    for (unsigned i = 0; i <= _me; ++i)
        MpiStatisticsManager::openPt2PtEvent("Communicator::iSend", 70000)->close(next);
    MpiStatisticsManager::openPt2PtEvent("Communicator::SendRecv", 0)->close(next);
    for (const char* name : {"Communicator::Wait", "Communicator::Recv", "RequestStack::wait"})
        MpiStatisticsManager::openPt2PtEvent(name, 0)->close(0);
    MpiStatisticsManager::disable(false);

    const Properties part = ProfileMessages::gather(true);
    const Properties byHost = ProfileMessages::gather(true, 0);
    const Properties off = ProfileMessages::gather(_me + 1 < _ranks);
    EXPECT_EQ(off.toString(), R"({"on":false})");
    if (_me != 0) {
        EXPECT_TRUE(part.empty());
        return;
    }
    std::string counts;
    std::vector<Properties> operations;
    part.get("operations", operations);
    for (const Properties& operation : operations) {
        std::vector<long long> classes;
        operation.get("count", classes);
        ASSERT_EQ(classes.size(), 7u);
        counts += operation.getString("kind") + ' ' + operation.getString("name") + ' ' +
                  std::to_string(classes[0]) + ' ' + std::to_string(classes[1]) + ' ' +
                  std::to_string(classes[6]) + '\n';
    }
    const std::string n = std::to_string(_ranks);
    const std::string sum = std::to_string(_ranks * (_ranks + 1) / 2);
    EXPECT_EQ(counts, "global All 0 " + sum + " 0\npair Communicator::Recv " + n +
                          " 0 0\npair Communicator::SendRecv " + n + " 0 0\npair Communicator::Wait " + n +
                          " 0 0\npair Communicator::iSend 0 0 " + sum + "\npair RequestStack::wait " + n +
                          " 0 0\n");
    std::vector<std::vector<long long>> square(_ranks, std::vector<long long>(_ranks));
    std::vector<std::vector<long long>> hosts(_ranks > 1 ? 2 : 1, std::vector<long long>(_ranks > 1 ? 2 : 1));
    for (unsigned rank = 0; rank < _ranks; ++rank) {
        const unsigned to = (rank + 1) % _ranks;
        square[rank][to] += rank + 1;
        square[to][rank] += 1;
        hosts[rank % 2][to % 2] += rank + 1;
        hosts[to % 2][rank % 2] += 1;
    }
    const auto text = [](const std::vector<std::vector<long long>>& rows) {
        std::string all;
        for (const auto& row : rows) {
            all += all.empty() ? "[" : ",[";
            for (std::size_t i = 0; i < row.size(); ++i)
                all += (i == 0 ? "" : ",") + std::to_string(row[i]);
            all += ']';
        }
        return R"("counts":[)" + all + "]}";
    };
    EXPECT_EQ(part.getProperties("partners").toString(), "{\"ranks\":" + n + ',' + text(square));
    EXPECT_EQ(byHost.getProperties("partners").toString(),
              "{\"ranks\":" + n + R"(,"byHost":true,)" + text(hosts));
}

TEST_F(ProfileOfJob, TellsTheMemoryOfEachHost) {
    MemoryHistory history;
    for (unsigned i = 1; i <= 4 + _me; ++i) // the shortest history has 4 s
        history.append(i, {0, (_me + 1) * 10LL + i, 0, 0, 0, 0});
    const auto listHosts = [&](const char* times, const std::string& hosts) {
        return R"({"on":true,"times":)" + std::string(times) + R"(,"hosts":[)" + hosts + "]}";
    };
    std::string hosts;
    const std::vector<long long> count = sumByHost([](unsigned) { return 1LL; });
    const std::vector<long long> sums = sumByHost([](unsigned rank) { return (rank + 1) * 10LL; });
    for (unsigned host = 0; host < count.size(); ++host) {
        const unsigned last = host + 2 * (static_cast<unsigned>(count[host]) - 1);
        std::vector<long long> resident;
        std::vector<long long> largest;
        for (long long i = 1; i <= 4; ++i) {
            resident.push_back(sums[host] + count[host] * i);
            largest.push_back((last + 1) * 10LL + i);
        }
        Properties entry;
        entry.set("host", host);
        entry.set("resident", resident);
        entry.set("max", largest);
        hosts += (host == 0 ? "" : ",") + entry.toString();
    }
    expect(ProfileMemory::gather(&history), listHosts("[1.0,2.0,3.0,4.0]", hosts));
    const MemoryHistory none;
    expect(ProfileMemory::gather(_me + 1 == _ranks ? &none : &history), listHosts("[]", ""));
    EXPECT_EQ(ProfileMemory::gather(_me + 1 == _ranks ? nullptr : &history).toString(), R"({"on":false})");
}

TEST_F(ProfileOfJob, ListsTheHostsAndTheirRanks) {
    Properties document;
    ProfileHosts::gather(document);
    if (_me != 0) {
        EXPECT_TRUE(document.empty());
        return;
    }
    std::vector<Properties> hosts;
    document.get("hosts", hosts);
    std::string text;
    for (const Properties& host : hosts) {
        std::vector<unsigned> ranks;
        host.get("ranks", ranks);
        text += host.getString("name") + ':';
        for (const unsigned rank : ranks)
            text += std::to_string(rank);
        text += ' ';
        EXPECT_GT(host.getLong("memory"), 0);
        const std::string all = host.toString();
        const std::size_t masks = all.find("\"ofRank\":[[") + 11;
        const std::string rest = all.substr(masks, all.find("]]", masks) - masks);
        EXPECT_EQ(std::ranges::count(rest, '['), static_cast<long>(ranks.size()) - 1) << all;
    }
    const char* const names[] = {"", "a:0 ", "a:0 b:1 ", "a:02 b:1 ", "a:02 b:13 ", "", "", "a:0246 b:135 "};
    EXPECT_EQ(text, names[_ranks]);
    EXPECT_EQ(document.toString().substr(document.toString().find("\"rankHost\"")),
              "\"rankHost\":" + list([](unsigned rank) { return std::to_string(rank % 2); }) + "}");
}

} // namespace
