// The hardware model on machines kept as data (base/test/data/machines), and the bindings of this process on
// what there is.

#include "machine/CpuTopology.h"
#include "machine/Affinity.h"

#include "kernel/Error.h"
#include "platform/Log.h"
#include "support/TestMachine.h"
#include "unit/machine/CpuTopologyTestAccess.h"
#include "unit/machine/Failures.h"

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

/// "0-3,8" and back; "none" for no index.
std::vector<unsigned> parseList(const std::string& text) {
    std::vector<unsigned> list;
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

std::string printList(const std::vector<unsigned>& list) {
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

/// A question for each group of a level, equal answers on neighbouring groups in one line.
void tell(std::ostream& out, const std::string& question, unsigned count,
          const std::function<std::string(unsigned)>& answer) {
    for (unsigned first = 0; first < count;) {
        unsigned last = first;
        while (last + 1 < count && answer(last + 1) == answer(first))
            ++last;
        out << question << ' ' << first;
        if (last > first)
            out << '-' << last;
        out << ": " << answer(first) << '\n';
        first = last + 1;
    }
}

/// Every query of the model in words.
std::string tellModel(const CpuTopology& t) {
    std::ostringstream out;
    const auto list = [](const std::vector<unsigned>& values) { return printList(values); };
    const auto hex = [](const AffinityMask& mask) { return mask.toHexString(1); };
    const unsigned cores = t.getNumberPhysicalCores();
    const unsigned nodes = t.getNumberNumaNodes();
    const unsigned sockets = t.getNumberSockets();
    out << t.print(true, true, true, true, 0, 28);
    out << "machine " << hex(t.getTopologyMask()) << ", available "
        << hex(t.restrictToAvailableResources(t.getTopologyMask())) << '\n';
    tell(out, "core", cores, [&](unsigned i) {
        return "node " + std::to_string(t.getNumaNodeForPhysicalCore(i)) + " socket " +
               std::to_string(t.getSocketForPhysicalCore(i)) + ", LPUs " + std::to_string(t.getNumberLpus(i));
    });
    for (unsigned i = 0; i < nodes; ++i)
        out << "node " << i << ": " << t.getNumberLpusForNumaNode(i) << " LPUs "
            << list(t.getLpusForNumaNode(i)) << ", " << t.getNumberPhysicalCoresForNumaNode(i) << " cores "
            << list(t.getPhysicalCoresForNumaNode(i)) << ", mask " << hex(t.getNumaMask(i)) << '\n';
    for (unsigned i = 0; i < sockets; ++i)
        out << "socket " << i << ": " << t.getNumberLpusForSocket(i) << " LPUs "
            << list(t.getLpusForSocket(i)) << ", " << t.getNumberPhysicalCoresForSocket(i) << " cores "
            << list(t.getPhysicalCoresForSocket(i)) << ", mask " << hex(t.getSocketMask(i)) << '\n';
    if (t.reliableLpuInformationAvailable()) {
        tell(out, "sockets of node", nodes, [&](unsigned i) {
            EXPECT_EQ(t.getNumberSocketsForNumaNode(i), t.getSocketsForNumaNode(i).size());
            return list(t.getSocketsForNumaNode(i));
        });
        tell(out, "nodes of socket", sockets, [&](unsigned i) {
            EXPECT_EQ(t.getNumberNumaNodesForSocket(i), t.getNumaNodesForSocket(i).size());
            return list(t.getNumaNodesForSocket(i));
        });
    }
    // What the groups say of their members, the members say of their groups.
    for (unsigned core = 0; core < cores; ++core)
        for (const unsigned lpu : t.getLpusForPhysicalCore(core)) {
            EXPECT_EQ(t.getPhysicalCoreForLpu(lpu), core);
            EXPECT_TRUE(t.getLpuMask(lpu).isIncludedIn(t.getPhysicalCoreMask(core)));
        }
    for (unsigned node = 0; node < nodes; ++node)
        for (const unsigned lpu : t.getLpusForNumaNode(node))
            EXPECT_EQ(t.getNumaNodeForLpu(lpu), node);
    for (unsigned socket = 0; socket < sockets; ++socket)
        for (const unsigned lpu : t.getLpusForSocket(socket))
            EXPECT_EQ(t.getSocketForLpu(lpu), socket);
    return out.str();
}

std::string tellMask(const CpuTopology& t, const std::string& words) {
    std::istringstream in(words);
    std::string hex;
    std::string word;
    unsigned length = 60;
    in >> hex >> word >> length;
    const AffinityMask mask = maskOf(hex);
    return t.printAffinityMask(mask, word.empty() ? 60 : length) + ", cores " +
           printList(t.getPhysicalCoresFromMask(mask)) + ", nodes " +
           printList(t.getNumaNodesFromMask(mask)) + ", sockets " + printList(t.getSocketsFromMask(mask)) +
           "\n";
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

class LogLines {
public:
    LogLines() {
        _log.setStandardError(false);
        _log.setListener(
            [this](const OS::Log::Record& record) { _text += "warning: " + record.text + '\n'; });
    }
    ~LogLines() {
        _log.setListener({});
        _log.setStandardError(true);
    }
    const std::string& text() const { return _text; }

private:
    OS::Log& _log = OS::Log::instance("Default");
    std::string _text;
};

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
        const LogLines log;
        const CpuTopology topology(makeTestMachine(description));
        told = log.text() + tellModel(topology);
        std::istringstream lines(description);
        for (std::string line; std::getline(lines, line);) {
            if (line.compare(0, 5, "mask ") == 0)
                told += line + ": " + tellMask(topology, line.substr(5));
            if (line.compare(0, 7, "subset ") == 0)
                told += line + ": " + tellSubset(topology, line.substr(7));
        }
        // The text form carries all of it, through its last zero byte.
        const std::string xml = topology.toString();
        EXPECT_EQ(xml.empty(), !topology.reliableLpuInformationAvailable());
        if (!xml.empty()) {
            EXPECT_EQ(xml.back(), '\0');
            EXPECT_EQ(tellModel(CpuTopology(xml)), tellModel(topology));
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

struct RangeCase {
    const char* condition;
    void (*query)(const CpuTopology&);
};

/// Each query one past the end.
TEST(CpuTopology_, refusesIndicesOutOfRange) {
    const CpuTopology full = makeTopology("pack:2 [numa] core:2 pu:2");
    const RangeCase ofFull[]{
        {"physicalCore < _physicalCores.size()", [](const CpuTopology& t) { t.getNumberLpus(4); }},
        {"physicalCore < _physicalCores.size()", [](const CpuTopology& t) { t.getLpusForPhysicalCore(4); }},
        {"numaNode < _numaNodeLpus.size()", [](const CpuTopology& t) { t.getLpusForNumaNode(2); }},
        {"numaNode < _numaNodeLpus.size()", [](const CpuTopology& t) { t.getNumberLpusForNumaNode(2); }},
        {"numaNode < _numaNodePhysicalCores.size()",
         [](const CpuTopology& t) { t.getPhysicalCoresForNumaNode(2); }},
        {"socket < _socketLpus.size()", [](const CpuTopology& t) { t.getLpusForSocket(2); }},
        {"socket < _socketPhysicalCores.size()",
         [](const CpuTopology& t) { t.getNumberPhysicalCoresForSocket(2); }},
        {"numaNode < _numaNodeSockets.size()", [](const CpuTopology& t) { t.getSocketsForNumaNode(2); }},
        {"socket < _socketNumaNodes.size()", [](const CpuTopology& t) { t.getNumberNumaNodesForSocket(2); }},
        {"lpu < _lpuPhysicalCore.size()", [](const CpuTopology& t) { t.getPhysicalCoreForLpu(8); }},
        {"lpu < _lpuNumaNode.size()", [](const CpuTopology& t) { t.getNumaNodeForLpu(8); }},
        {"lpu < _lpuSocket.size()", [](const CpuTopology& t) { t.getSocketForLpu(8); }},
        {"physicalCore < _physicalCoreNumaNode.size()",
         [](const CpuTopology& t) { t.getNumaNodeForPhysicalCore(4); }},
        {"physicalCore < _physicalCoreSocket.size()",
         [](const CpuTopology& t) { t.getSocketForPhysicalCore(4); }},
        {"lpu < _lpus.size()", [](const CpuTopology& t) { t.getLpuMask(8); }},
        {"index < list.size()",
         [](const CpuTopology& t) {
             t.getPhysicalCoreMask({0, 4});
         }},
        {"index < list.size()", [](const CpuTopology& t) { t.getNumaMask(2); }},
        {"index < list.size()", [](const CpuTopology& t) { t.getSocketMask(std::vector<unsigned>{2}); }},
    };
    for (const RangeCase& one : ofFull)
        expectAssertion([&] { one.query(full); }, "Index out of range.", one.condition, "CpuTopology.cpp");

    const CpuTopology empty = makeEmptyTopology();
    const RangeCase ofEmpty[]{
        {"physicalCore < getNumberPhysicalCores()",
         [](const CpuTopology& t) { t.getLpusForPhysicalCore(1); }},
        {"lpu < getNumberLpus()", [](const CpuTopology& t) { t.getPhysicalCoreForLpu(1); }},
        {"lpu == 0u", [](const CpuTopology& t) { t.getLpuMask(1); }},
        {"lpu == 0u", [](const CpuTopology& t) { t.getPhysicalCoreMask(1); }},
        {"numaNode == 0u", [](const CpuTopology& t) { t.getNumaMask(1); }},
        {"socket == 0u", [](const CpuTopology& t) { t.getSocketMask(1); }},
        {"numaNode < _numaNodeSockets.size()", [](const CpuTopology& t) { t.getSocketsForNumaNode(0); }},
    };
    for (const RangeCase& one : ofEmpty)
        expectAssertion([&] { one.query(empty); }, "Index out of range.", one.condition, "CpuTopology.cpp");
    // A missing level has one answer for every index.
    EXPECT_EQ(empty.getLpusForSocket(7), std::vector<unsigned>{0});
    EXPECT_EQ(empty.getNumberLpus(7), 1u);
    EXPECT_EQ(empty.getNumaNodeForLpu(7), 0u);
}

TEST(CpuTopology_, noticesWhatItsOwnListsCantHold) {
    CpuTopology topology = makeTopology("pack:2 [numa] core:2 pu:1");
    auto& impl = CpuTopologyTestAccess::impl(topology);
    EXPECT_THROW(CpuTopologyTestAccess::invertNesting(impl._socketLpus, 1), InternalError);
    EXPECT_THROW(CpuTopologyTestAccess::getObjectsBelow(impl._socketLpus[0], {}), InternalError);
    EXPECT_THROW(
        CpuTopologyTestAccess::getObjectsBelow(impl._socketLpus[0], {impl._lpus[0], impl._socketLpus[0]}),
        InternalError);
    {
        const LogLines log; // an object that the list doesn't know
        EXPECT_EQ(CpuTopologyTestAccess::getObjectsBelow(impl._socketLpus[0], {impl._lpus[1]}).size(), 1u);
        EXPECT_EQ(log.text(),
                  "warning: Unexpected, not yet seen object found while parsing hwloc topology.\n");
    }
    {
        const LogLines log;
        EXPECT_TRUE(CpuTopologyTestAccess::getObjectsBelow({nullptr, 0}, impl._lpus).empty());
        EXPECT_EQ(log.text(), "warning: Unexpected uninitialized object while parsing hwloc topology.\n");
    }
    impl._socketLpus[1].objs.clear();
    expectAssertion([&] { topology.getLpusForSocket(1); }, "Unexpected empty list of nested objects.",
                    "!_socketLpus[socket].objs.empty()", "CpuTopology.cpp");
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
