// The hardware model on machines kept as data (base/test/data/machines), and the bindings of this process on
// what there is.

#include "machine/CpuTopology.h"
#include "machine/Affinity.h"

#include "kernel/Error.h"
#include "support/TestMachine.h"
#include "unit/machine/Failures.h"
#include "unit/machine/LogLines.h"
#include "unit/machine/hardware/CpuTopologyTestAccess.h"

#include <gtest/gtest.h>
#include <hwloc.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <sstream>
#include <thread>

namespace {

AffinityMask maskOf(const std::string& hex) {
    hwloc_bitmap_t bitmap = hwloc_bitmap_alloc();
    hwloc_bitmap_taskset_sscanf(bitmap, hex.c_str());
    AffinityMask mask = AffinityMaskTestAccess::make(bitmap);
    hwloc_bitmap_free(bitmap);
    return mask;
}

using List = std::vector<unsigned>;

/// "0-3,8" and back; "none" for no index.
List parseList(const std::string& text) {
    List list;
    std::istringstream parts(text == "none" ? "" : text);
    for (std::string part; std::getline(parts, part, ',');) {
        const std::size_t dash = part.find('-');
        const unsigned first = static_cast<unsigned>(std::stoul(part));
        const unsigned last =
            dash == std::string::npos ? first : static_cast<unsigned>(std::stoul(part.substr(dash + 1)));
        for (unsigned i = first; i <= last; ++i)
            list.push_back(i);
    }
    return list;
}

std::string printList(const List& list) {
    std::string text;
    for (std::size_t first = 0; first < list.size();) {
        std::size_t last = first;
        while (last + 1 < list.size() && list[last + 1] == list[last] + 1)
            ++last;
        text += (text.empty() ? "" : ",") + std::to_string(list[first]);
        if (last > first)
            text += '-' + std::to_string(list[last]);
        first = last + 1;
    }
    return text.empty() ? "none" : text;
}

/// "0-1 2-3 ... 14-15": more than four that go on evenly are abbreviated.
std::string printLists(const std::vector<List>& lists) {
    const auto goesOn = [&](std::size_t i, std::size_t first) {
        const List &from = lists[i], &to = lists[i + 1];
        return !from.empty() &&
               std::equal(from.begin(), from.end(), to.begin(), to.end(),
                          [&](auto a, auto b) { return b - a == lists[first + 1][0] - lists[first][0]; });
    };
    std::string text;
    for (std::size_t first = 0; first < lists.size(); ++first) {
        std::size_t last = first;
        while (last + 1 < lists.size() && goesOn(last, first))
            ++last;
        text += (first > 0 ? " " : "") + printList(lists[first]);
        if (last - first >= 4) {
            text += " " + printList(lists[first + 1]) + " ... " + printList(lists[last]);
            first = last;
        }
    }
    return text;
}

List processorsOf(const AffinityMask& mask) {
    const std::string bits = mask.toBinaryString(1).substr(2);
    List processors;
    for (unsigned i = 0; i < bits.size(); ++i)
        if (bits[bits.size() - 1 - i] == '1')
            processors.push_back(i);
    return processors;
}

/// Every query of the model in words: "of" a group stands what it says of its members, "by" group what each
/// member says of its group.
std::string tellModel(const CpuTopology& t) {
    using T = CpuTopology;
    std::ostringstream out;
    const unsigned lpus = t.getNumberLpus();
    const unsigned cores = t.getNumberPhysicalCores();
    const unsigned nodes = t.getNumberNumaNodes();
    const unsigned sockets = t.getNumberSockets();
    const auto each = [&](unsigned count, auto ask) {
        std::vector<List> lists;
        for (unsigned i = 0; i < count; ++i)
            lists.push_back({std::invoke(ask, t, i)});
        return printLists(lists);
    };
    const auto of = [&](const char* groups, unsigned count, auto getMembers, auto getNumber) {
        out << groups << each(count, getMembers) << " (" << each(count, getNumber) << ")";
    };
    const auto by = [&](const char* group, unsigned count, unsigned members, auto getGroup) {
        std::vector<List> lists(count);
        for (unsigned member = 0; member < members; ++member)
            lists.at(std::invoke(getGroup, t, member)).push_back(member);
        out << group << printLists(lists);
    };
    const auto processors = [&](const char* groups, unsigned count,
                                AffinityMask (T::*getMask)(unsigned) const) {
        out << groups << each(count, [&](const T&, unsigned i) { return processorsOf((t.*getMask)(i)); });
    };
    out << t.print(true, true, true, true, 0, 28) << "machine " << t.getTopologyMask().toHexString(1)
        << ", available " << t.restrictToAvailableResources(t.getTopologyMask()).toHexString(1);
    processors("\nprocessors of LPUs ", lpus, &T::getLpuMask);
    processors(", cores ", cores, &T::getPhysicalCoreMask);
    processors(", nodes ", nodes, &T::getNumaMask);
    processors(", sockets ", sockets, &T::getSocketMask);
    of("\nLPUs of cores ", cores, &T::getLpusForPhysicalCore,
       [](const T& m, unsigned i) { return m.getNumberLpus(i); });
    of(", nodes ", nodes, &T::getLpusForNumaNode, &T::getNumberLpusForNumaNode);
    of(", sockets ", sockets, &T::getLpusForSocket, &T::getNumberLpusForSocket);
    of("\ncores of nodes ", nodes, &T::getPhysicalCoresForNumaNode, &T::getNumberPhysicalCoresForNumaNode);
    of(", sockets ", sockets, &T::getPhysicalCoresForSocket, &T::getNumberPhysicalCoresForSocket);
    by("\nLPUs by core ", cores, lpus, &T::getPhysicalCoreForLpu);
    by(", node ", nodes, lpus, &T::getNumaNodeForLpu);
    by(", socket ", sockets, lpus, &T::getSocketForLpu);
    by("\ncores by node ", nodes, cores, &T::getNumaNodeForPhysicalCore);
    by(", socket ", sockets, cores, &T::getSocketForPhysicalCore);
    if (t.reliableLpuInformationAvailable()) {
        of("\nsockets of nodes ", nodes, &T::getSocketsForNumaNode, &T::getNumberSocketsForNumaNode);
        of(", nodes of sockets ", sockets, &T::getNumaNodesForSocket, &T::getNumberNumaNodesForSocket);
    }
    out << '\n';
    return out.str();
}

std::string tellMask(const CpuTopology& t, const std::string& words) {
    std::istringstream in(words);
    std::string hex;
    std::string word;
    unsigned length = 60;
    in >> hex >> word >> length;
    const AffinityMask mask = maskOf(hex);
    std::string told = t.printAffinityMask(mask, word.empty() ? 60 : length);
    const auto add = [&](const char* kind, const List& touched,
                         AffinityMask (CpuTopology::*getMask)(const List&) const) {
        told += kind + printList(touched) + " = " + (t.*getMask)(touched).toHexString(1);
    };
    add(", LPUs ", t.getLpusFromMask(mask), &CpuTopology::getLpuMask);
    add(", cores ", t.getPhysicalCoresFromMask(mask), &CpuTopology::getPhysicalCoreMask);
    add(", nodes ", t.getNumaNodesFromMask(mask), &CpuTopology::getNumaMask);
    add(", sockets ", t.getSocketsFromMask(mask), &CpuTopology::getSocketMask);
    return told + "\n";
}

std::string tellSubset(const CpuTopology& t, const std::string& words) {
    std::istringstream in(words);
    std::string mode;
    std::string lpus;
    std::string word;
    unsigned count = 0;
    in >> mode >> lpus >> word >> count;
    const bool isSpread = mode.compare(0, 6, "spread") == 0;
    return printList(t.getLpuSubset(parseList(lpus), count,
                                    isSpread ? CpuTopology::Spread : CpuTopology::Compact,
                                    mode.find("packed") == std::string::npos)) +
           "\n";
}

const std::filesystem::path MACHINES = ORVEX_TEST_DATA "/machines";

class Machines : public testing::TestWithParam<std::string> {};

/// A file holds the description and the questions, then "---" and the answers. With ORVEX_WRITE_EXPECTED in
/// the environment the answers are written anew, for an author to read them.
TEST_P(Machines, areToldAsExpected) {
    const std::filesystem::path path = MACHINES / GetParam();
    std::stringstream file;
    file << std::ifstream(path).rdbuf();
    const std::string text = file.str();
    const std::size_t end = text.find("---\n");
    const std::string description = text.substr(0, end);

    std::string told;
    {
        const LogLines log(OS::Log::INFO_LEVEL);
        const CpuTopology topology(makeTestMachine(description));
        const auto tell = [&](const CpuTopology& t) {
            std::string answers = tellModel(t);
            std::istringstream lines(description);
            for (std::string line; std::getline(lines, line);) {
                if (line.compare(0, 5, "mask ") == 0)
                    answers += line + ": " + tellMask(t, line.substr(5));
                if (line.compare(0, 7, "subset ") == 0)
                    answers += line + ": " + tellSubset(t, line.substr(7));
            }
            return answers;
        };
        const std::string answers = tell(topology);
        told = log.text() + answers;
        // The text form carries all of it, through its last zero byte.
        const std::string xml = topology.toString();
        EXPECT_EQ(xml.empty(), !topology.reliableLpuInformationAvailable());
        if (!xml.empty()) {
            EXPECT_EQ(xml.back(), '\0');
            EXPECT_EQ(tell(CpuTopology(xml)), answers);
        }
    }
    if (std::getenv("ORVEX_WRITE_EXPECTED"))
        std::ofstream(path) << description << "---\n" << told;
    else
        EXPECT_EQ(told, end == std::string::npos ? "" : text.substr(end + 4));
}

std::vector<std::string> listMachines() {
    std::vector<std::string> names;
    for (const auto& entry : std::filesystem::directory_iterator(MACHINES))
        names.push_back(entry.path().filename().string());
    std::sort(names.begin(), names.end());
    return names;
}

std::string nameOf(const testing::TestParamInfo<std::string>& file) {
    std::string name = file.param.substr(0, file.param.find('.'));
    std::replace(name.begin(), name.end(), '-', '_');
    return name;
}

INSTANTIATE_TEST_SUITE_P(Data, Machines, testing::ValuesIn(listMachines()), nameOf);

CpuTopology makeTopology(const std::string& synthetic) {
    return CpuTopology(makeTestMachine("machine " + synthetic));
}

CpuTopology makeEmptyTopology() {
    return CpuTopology(std::string("no XML at all\0", 14));
}

TEST(CpuTopology_, abbreviatesLongLists) {
    const CpuTopology four = makeTopology("pack:1 [numa] core:4 pu:1");
    EXPECT_EQ(four.print(true, false, false, false, 2, 0), "  S00 : [00 ... 03]\n");
    EXPECT_EQ(four.print(true, false, false, false, 0, 3), "S00 : [00 ... 03]\n");
    EXPECT_EQ(four.print(true, false, false, false, 0, 4), "S00 : [00 01 02 03]\n");
    const CpuTopology eight = makeTopology("pack:1 [numa] core:8 pu:2");
    EXPECT_EQ(eight.print(true, false, false, false, 0, 9), "S00 : [00+01 02+03 ... 12+13 14+15]\n");
    EXPECT_EQ(eight.print(false, true, false, false, 0, 7), "N00 : [00+01 ... 14+15]\n");
    const CpuTopology wide = makeTopology("pack:1 [numa] core:101 pu:1");
    EXPECT_EQ(wide.print(true, true, true, false, 0, 4), "S00 = N00 : [000 001 ... 099 100]\n");
}

/// Nothing fits: of equally short texts the one of the wider level is taken.
TEST(CpuTopology_, prefersWiderLevelsInTheTextOfAMask) {
    EXPECT_EQ(makeTopology("pack:2 [numa] core:1 pu:2").printAffinityMask(maskOf("0x1"), 0),
              "{S00[10] : 0x1}");
    EXPECT_EQ(makeTopology("pack:2 die:2 [numa] core:1 pu:2").printAffinityMask(maskOf("0x1"), 0),
              "{N00[10] : 0x01}");
}

struct RangeCase {
    const char* condition;
    void (*query)(const CpuTopology&);
};
#define QUERY(...) [](const CpuTopology& t) { t.__VA_ARGS__; }

/// Each query one past the end.
TEST(CpuTopology_, refusesIndicesOutOfRange) {
    const CpuTopology full = makeTopology("pack:2 [numa] core:2 pu:2");
    const RangeCase ofFull[]{
        {"physicalCore < _physicalCores.size()", QUERY(getNumberLpus(4))},
        {"physicalCore < _physicalCores.size()", QUERY(getLpusForPhysicalCore(4))},
        {"numaNode < _numaNodeLpus.size()", QUERY(getLpusForNumaNode(2))},
        {"numaNode < _numaNodeLpus.size()", QUERY(getNumberLpusForNumaNode(2))},
        {"numaNode < _numaNodePhysicalCores.size()", QUERY(getPhysicalCoresForNumaNode(2))},
        {"socket < _socketLpus.size()", QUERY(getLpusForSocket(2))},
        {"socket < _socketPhysicalCores.size()", QUERY(getNumberPhysicalCoresForSocket(2))},
        {"numaNode < _numaNodeSockets.size()", QUERY(getSocketsForNumaNode(2))},
        {"socket < _socketNumaNodes.size()", QUERY(getNumberNumaNodesForSocket(2))},
        {"lpu < _lpuPhysicalCore.size()", QUERY(getPhysicalCoreForLpu(8))},
        {"lpu < _lpuNumaNode.size()", QUERY(getNumaNodeForLpu(8))},
        {"lpu < _lpuSocket.size()", QUERY(getSocketForLpu(8))},
        {"physicalCore < _physicalCoreNumaNode.size()", QUERY(getNumaNodeForPhysicalCore(4))},
        {"physicalCore < _physicalCoreSocket.size()", QUERY(getSocketForPhysicalCore(4))},
        {"lpu < _lpus.size()", QUERY(getLpuMask(8))},
        {"index < list.size()", QUERY(getPhysicalCoreMask({0, 4}))},
        {"index < list.size()", QUERY(getNumaMask(2))},
        {"index < list.size()", QUERY(getSocketMask(std::vector<unsigned>{2}))},
    };
    const RangeCase ofEmpty[]{
        {"physicalCore < getNumberPhysicalCores()", QUERY(getLpusForPhysicalCore(1))},
        {"lpu < getNumberLpus()", QUERY(getPhysicalCoreForLpu(1))},
        {"lpu == 0u", QUERY(getLpuMask(1))},
        {"lpu == 0u", QUERY(getPhysicalCoreMask(1))},
        {"numaNode == 0u", QUERY(getNumaMask(1))},
        {"socket == 0u", QUERY(getSocketMask(1))},
        {"numaNode < _numaNodeSockets.size()", QUERY(getSocketsForNumaNode(0))},
    };
    for (const RangeCase& one : ofFull)
        expectAssertion([&] { one.query(full); }, "Index out of range.", one.condition, "CpuTopology.cpp");

    const CpuTopology empty = makeEmptyTopology();
    for (const RangeCase& one : ofEmpty)
        expectAssertion([&] { one.query(empty); }, "Index out of range.", one.condition, "CpuTopology.cpp");
    // A missing level has one answer for every index.
    EXPECT_EQ(empty.getLpusForSocket(7), std::vector<unsigned>{0});
    EXPECT_EQ(empty.getNumberLpus(7), 1u);
    EXPECT_EQ(empty.getNumaNodeForLpu(7), 0u);
}
#undef QUERY

TEST(CpuTopology_, noticesWhatItsOwnListsCantHold) {
    using Access = CpuTopologyTestAccess;
    CpuTopology topology = makeTopology("pack:2 [numa] core:2 pu:1");
    CpuTopology empty = makeEmptyTopology();
    auto& impl = Access::impl(topology);
    const struct {
        const char* message;
        const char* condition;
        std::function<void()> operation;
        const char* file = "CpuTopologyImpl.cpp";
    } rows[]{
        {"Unexpected logical index while iterating object list.", "obj.index < size",
         [&] { Access::invertNesting(impl._socketLpus, 1); }},
        {"Unexpected, empty list", "!allTypeObjs.empty()",
         [&] { Access::getObjectsBelow(impl._socketLpus[0], {}); }},
        {"Unexpected, empty list", "!allTypeObjs.empty()", [&] { Access::getNestedObjects({}, {}); }},
        {"All objects in 'allTypeObjs' must be of the same type.",
         "std::all_of(allTypeObjs.begin(), allTypeObjs.end(), [&allTypeObjs](HwlocObj const &obj){ return "
         "obj.obj->type == allTypeObjs.front().obj->type; })",
         [&] {
             Access::getObjectsBelow(impl._socketLpus[0], {impl._lpus[0], impl._socketLpus[0]});
         }},
        {"Unexpected empty list of objects.", "!list.empty()", [] { Access::isConsecutiveList({}); },
         "hardware/CpuTopologyImpl.h"},
        {"Unexpected uninitialized topology.", "_topology != nullptr",
         [&] { Access::getLpus(Access::impl(empty)); }},
        {"Unexpected uninitialized topology.", "_topology != nullptr",
         [&] { Access::getAllUniqueNumaNodes(Access::impl(empty)); }},
        {"Unexpected empty list of nested objects.", "!_socketLpus[socket].objs.empty()",
         [&] {
             impl._socketLpus[1].objs.clear();
             topology.getLpusForSocket(1);
         },
         "CpuTopology.cpp"},
    };
    for (const auto& row : rows)
        expectAssertion(row.operation, row.message, row.condition, row.file);
    const LogLines log; // an object that the list doesn't know, and none at all
    EXPECT_EQ(Access::getObjectsBelow(impl._socketLpus[0], {impl._lpus[1]}).size(), 1u);
    EXPECT_TRUE(Access::getObjectsBelow({nullptr, 0}, impl._lpus).empty());
    EXPECT_EQ(log.text(), "warning CpuTopology::Impl::getObjectsBelow: "
                          "Unexpected, not yet seen object found while parsing hwloc topology.\n"
                          "warning CpuTopology::Impl::getObjectsBelow: "
                          "Unexpected uninitialized object while parsing hwloc topology.\n");
}

/// No message, and a model without anything.
TEST(CpuTopology_, isEmptyForATextThatIsNone) {
    const std::string good = makeTestMachine("machine pack:2 [numa] core:2 pu:1");
    const std::string expected = tellModel(makeEmptyTopology());
    const LogLines log;
    for (const std::string& text :
         {good.substr(0, good.size() / 2), good.substr(0, good.size() / 2) + '\0', good.substr(0, 1),
          std::string(1, '\0'), std::string("<topology version=\"2.0\"></topology>"),
          std::string("<topology/>\0", 12), good.substr(0, good.find("<object")) + "</topology>" + '\0'})
        EXPECT_EQ(tellModel(CpuTopology(text)), expected) << text;
    EXPECT_EQ(log.text(), "");
}

TEST(CpuTopology_, movesAndDetects) {
    CpuTopology topology; // of this host, whatever it is
    EXPECT_TRUE(topology.reliableLpuInformationAvailable());
    const std::string report = tellModel(topology);
    CpuTopology other(std::move(topology));
    topology = std::move(other);
    EXPECT_EQ(tellModel(topology), report);
    EXPECT_EQ(tellModel(CpuTopology(topology.toString())), report);
}

// ---- Masks.

TEST(AffinityMask_, printsItsBits) {
    const struct {
        const char* mask;
        unsigned width;
        const char* binary;
        const char* hexadecimal;
    } rows[]{{"0x0", 0, "0b0", "0x0"},
             {"0x0", 3, "0b000", "0x000"},
             {"0x1", 2, "0b01", "0x01"},
             {"0x9", 1, "0b1001", "0x9"},
             {"0x100", 1, "0b100000000", "0x100"},
             {"0x100", 4, "0b100000000", "0x0100"},
             {"0xdeadbeef", 0, "0b11011110101011011011111011101111", "0xdeadbeef"},
             {"0x8000000000000000", 1, nullptr, "0x8000000000000000"},
             {"0x10000000000000000", 1, nullptr, "0x10000000000000000"}};
    for (const auto& row : rows) {
        if (row.binary) {
            EXPECT_EQ(maskOf(row.mask).toBinaryString(row.width), row.binary);
        }
        EXPECT_EQ(maskOf(row.mask).toHexString(row.width), row.hexadecimal);
    }
}

TEST(AffinityMask_, isAValue) {
    // Around the borders of a word.
    for (const char* const low : {"0x4000000000000000", "0x8000000000000000", "0x10000000000000000"}) {
        const AffinityMask a = maskOf(low) | maskOf("0x1");
        const AffinityMask b = maskOf("0x3");
        EXPECT_EQ(a & b, maskOf("0x1"));
        EXPECT_EQ(a ^ b, maskOf(low) | maskOf("0x2"));
        EXPECT_TRUE(a.intersectsWith(b));
        EXPECT_FALSE(a.isIncludedIn(b));
        EXPECT_TRUE((a & b).isIncludedIn(a));
        EXPECT_FALSE(maskOf(low).intersectsWith(b));
        AffinityMask c = a;
        c &= b;
        c |= maskOf(low);
        EXPECT_EQ(c, a);
        EXPECT_NE(c ^= b, a);
        AffinityMask d(std::move(c));
        c = d; // a mask that was moved from takes a new value
        EXPECT_EQ(c, d);
        c = *&c;
        AffinityMask e;
        EXPECT_TRUE(e.empty());
        EXPECT_TRUE(e.isIncludedIn(b));
        e.swap(c);
        EXPECT_EQ(e, d);
        EXPECT_TRUE(c.empty());
        e.clear();
        EXPECT_TRUE(e.empty());
    }
}

// ---- Bindings, on the processors that this process may use, be it one.

class Binding : public testing::Test {
protected:
    Binding() { EXPECT_TRUE(AffinityTestAccess::clearProcess(topology)); } // whatever it came with
    ~Binding() override { AffinityTestAccess::clearProcess(topology); }

    const CpuTopology topology;
    const AffinityMask available = topology.restrictToAvailableResources(topology.getTopologyMask());
    const unsigned lpu = topology.getLpusFromMask(available).back();
};

TEST_F(Binding, ofProcessesIsSetReadAndCleared) {
    EXPECT_TRUE(AffinityTestAccess::setProcess(topology, topology.getLpuMask(lpu)));
    EXPECT_EQ(Affinity::getProcessAffinity(topology), topology.getLpuMask(lpu));
    EXPECT_EQ(Affinity::getProcessAffinity(topology, static_cast<unsigned>(getpid())),
              topology.getLpuMask(lpu));
    EXPECT_TRUE(Affinity::isProcessBound(topology));
    EXPECT_FALSE(AffinityTestAccess::setProcess(topology, AffinityMask()));
    EXPECT_EQ(Affinity::getProcessAffinity(topology), topology.getLpuMask(lpu));

    EXPECT_TRUE(AffinityTestAccess::clearProcess(topology));
    EXPECT_EQ(Affinity::getProcessAffinity(topology), available);
    EXPECT_EQ(Affinity::isProcessBound(topology), topology.getPhysicalCoresFromMask(available).size() == 1);
    EXPECT_TRUE(AffinityTestAccess::setProcessHere(topology));
    EXPECT_TRUE(Affinity::isProcessBound(topology));
}

TEST_F(Binding, ofThreadsIsTheirOwn) {
    std::thread([&] {
        EXPECT_TRUE(AffinityTestAccess::setThread(topology, topology.getLpuMask(lpu)));
        EXPECT_TRUE(Affinity::isThreadBound(topology));
        EXPECT_TRUE(AffinityTestAccess::clearThread(topology));
        EXPECT_EQ(Affinity::getThreadAffinity(topology), available);
        EXPECT_TRUE(AffinityTestAccess::setThreadHere(topology));
        EXPECT_TRUE(Affinity::isThreadBound(topology));
    }).join();
    EXPECT_EQ(Affinity::getThreadAffinity(topology), available);
}

TEST_F(Binding, ofAnotherProcessIsRead) {
    const pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        AffinityTestAccess::setProcess(topology, topology.getLpuMask(lpu));
        raise(SIGSTOP);
        _exit(0);
    }
    int status = 0;
    waitpid(child, &status, WUNTRACED);
    EXPECT_EQ(Affinity::getProcessAffinity(topology, static_cast<unsigned>(child)), topology.getLpuMask(lpu));
    kill(child, SIGCONT);
    waitpid(child, &status, 0);
    EXPECT_TRUE(Affinity::getProcessAffinity(topology, static_cast<unsigned>(child)).empty());
}

/// Where hwloc tells nothing, nothing is done.
TEST(BindingWithoutTopology, doesNothing) {
    const CpuTopology empty = makeEmptyTopology();
    EXPECT_FALSE(AffinityTestAccess::setThread(empty, maskOf("0x1")));
    EXPECT_FALSE(AffinityTestAccess::setProcessHere(empty));
    EXPECT_FALSE(AffinityTestAccess::clearProcess(empty));
    EXPECT_TRUE(Affinity::getThreadAffinity(empty).empty());
    EXPECT_TRUE(Affinity::getProcessAffinity(empty, 1).empty());
    EXPECT_FALSE(Affinity::isThreadBound(empty));
    EXPECT_EQ(empty.restrictToAvailableResources(maskOf("0x3")), maskOf("0x3"));
}

} // namespace
