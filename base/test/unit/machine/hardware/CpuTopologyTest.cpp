// The hardware model on machines kept as data (base/test/data/machines), and the bindings of this process on
// what there is.

#include "machine/CpuTopology.h"
#include "machine/Affinity.h"

#include "kernel/Error.h"
#include "support/TestMachine.h"
#include "unit/machine/LogLines.h"
#include "unit/machine/hardware/AffinityTestAccess.h"

#include <gtest/gtest.h>
#include <hwloc.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
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

std::string printLists(const std::vector<List>& lists) {
    std::string text;
    for (const List& list : lists)
        text += (text.empty() ? "" : " ") + printList(list);
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

/// How an index behind the last is refused: " [condition]"; a missing level takes any.
std::string tellRefusal(const std::function<void()>& query) {
    try {
        query();
    } catch (const InternalError& error) {
        EXPECT_EQ(Error::getMessage(error.getProperties()), "Index out of range.");
        return " [" + error.getProperties().getString("Condition") + "]";
    }
    return " [any]";
}

/// Every query of the model in words: "of" a group stands what it says of its members, "by" group what each
/// member says of its group.
std::string tellModel(const CpuTopology& t, bool pastTheEnd = false) {
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
        return printLists(lists) +
               (pastTheEnd ? tellRefusal([&] { std::invoke(ask, t, count); }) : std::string());
    };
    const auto of = [&](const char* groups, unsigned count, auto getMembers, auto getNumber) {
        out << groups << each(count, getMembers) << " (" << each(count, getNumber) << ")";
    };
    const auto by = [&](const char* group, unsigned count, unsigned members, auto getGroup) {
        std::vector<List> lists(count);
        for (unsigned member = 0; member < members; ++member)
            lists.at(std::invoke(getGroup, t, member)).push_back(member);
        out << group << printLists(lists);
        if (pastTheEnd)
            out << tellRefusal([&] { std::invoke(getGroup, t, members); });
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
    const bool isKnown = t.reliableLpuInformationAvailable(); // else these refuse every index
    of("\nsockets of nodes ", isKnown ? nodes : 0, &T::getSocketsForNumaNode,
       &T::getNumberSocketsForNumaNode);
    of(", nodes of sockets ", isKnown ? sockets : 0, &T::getNumaNodesForSocket,
       &T::getNumberNumaNodesForSocket);
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

/// "print SNC 4 28": the levels that are wanted, the indent, and the length of the longest list.
std::string tellPrint(const CpuTopology& t, const std::string& words) {
    std::istringstream in(words);
    std::string levels;
    unsigned indent = 0;
    unsigned length = 0;
    in >> levels >> indent >> length;
    const auto has = [&](char level) { return levels.find(level) != std::string::npos; };
    return "\n" + t.print(has('S'), has('N'), has('C'), false, indent, length);
}

/// The model and the answers to the questions of a description.
std::string tell(const CpuTopology& t, const std::string& description) {
    std::string told = tellModel(t, description.find("\npast the end\n") != std::string::npos);
    std::istringstream lines(description);
    for (std::string line; std::getline(lines, line);)
        for (const auto& [word, answer] : {std::pair("mask ", &tellMask), std::pair("subset ", &tellSubset),
                                           std::pair("print ", &tellPrint)})
            if (line.starts_with(word))
                told += line + ": " + answer(t, line.substr(std::strlen(word)));
    return told;
}

/// A file holds the description and the questions, then "---" and the answers. With ORVEX_WRITE_EXPECTED in
/// the environment the answers are written anew, for an author to read them.
TEST(CpuTopology, TellsTheMachinesAsExpected) {
    unsigned machines = 0;
    for (const auto& entry : std::filesystem::directory_iterator(ORVEX_TEST_DATA "/machines")) {
        SCOPED_TRACE(entry.path().filename());
        std::stringstream file;
        file << std::ifstream(entry.path()).rdbuf();
        const std::string text = file.str();
        const std::string description = text.substr(0, text.find("---\n"));
        const LogLines log(OS::Log::INFO_LEVEL);
        const CpuTopology topology(makeTestMachine(description));
        const std::string answers = tell(topology, description);
        const std::string told = description + "---\n" + log.text() + answers;
        // The text form carries all of it, through its last zero byte.
        const std::string xml = topology.toString();
        EXPECT_EQ(xml.empty(), !topology.reliableLpuInformationAvailable());
        if (!xml.empty()) {
            EXPECT_EQ(xml.back(), '\0');
            EXPECT_EQ(tell(CpuTopology(xml), description), answers);
        }
        if (std::getenv("ORVEX_WRITE_EXPECTED"))
            std::ofstream(entry.path()) << told;
        else
            EXPECT_EQ(told, text);
        ++machines;
    }
    EXPECT_GE(machines, 29u);
}

CpuTopology makeEmptyTopology() {
    return CpuTopology(std::string("no XML at all\0", 14));
}

/// No message, and a model without anything.
TEST(CpuTopology, IsEmptyForATextThatIsNone) {
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

TEST(CpuTopology, MovesAndDetectsThisHost) {
    CpuTopology topology; // of this host, whatever it is
    EXPECT_TRUE(topology.reliableLpuInformationAvailable());
    const std::string report = tellModel(topology);
    CpuTopology other(std::move(topology));
    topology = std::move(other);
    EXPECT_EQ(tellModel(topology), report);
    EXPECT_EQ(tellModel(CpuTopology(topology.toString())), report);
}

// ---- Masks.

TEST(AffinityMask, PrintsItsBits) {
    const struct {
        const char* mask;
        unsigned width;
        const char* text;
    } rows[]{{"0x0", 0, "0b0 0x0"},
             {"0x0", 3, "0b000 0x000"},
             {"0x1", 2, "0b01 0x01"},
             {"0x100", 4, "0b100000000 0x0100"},
             {"0xdeadbeef", 0, "0b11011110101011011011111011101111 0xdeadbeef"}};
    for (const auto& [mask, width, text] : rows)
        EXPECT_EQ(maskOf(mask).toBinaryString(width) + ' ' + maskOf(mask).toHexString(width), text);
    for (const char* const wide : {"0x8000000000000000", "0x10000000000000000"})
        EXPECT_EQ(maskOf(wide).toHexString(1), wide);
}

TEST(AffinityMask, IsAValue) {
    // Around the borders of a word.
    for (const char* const low : {"0x4000000000000000", "0x8000000000000000", "0x10000000000000000"}) {
        const AffinityMask a = maskOf(low) | maskOf("0x1");
        const AffinityMask b = maskOf("0x3");
        EXPECT_EQ(a & b, maskOf("0x1"));
        EXPECT_EQ(a ^ b, maskOf(low) | maskOf("0x2"));
        EXPECT_TRUE(a.intersectsWith(b) && !maskOf(low).intersectsWith(b));
        EXPECT_TRUE((a & b).isIncludedIn(a) && !a.isIncludedIn(b));
        AffinityMask c = a;
        c &= b;
        c |= maskOf(low);
        EXPECT_EQ(c, a);
        EXPECT_NE(c ^= b, a);
        AffinityMask d(std::move(c));
        c = d; // a mask that was moved from takes a new value
        c = *&c;
        EXPECT_EQ(c, d);
        AffinityMask e;
        EXPECT_TRUE(e.empty() && e.isIncludedIn(b));
        e.swap(c);
        EXPECT_TRUE(c.empty() && e == d);
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

TEST_F(Binding, OfProcessesIsSetReadAndCleared) {
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

TEST_F(Binding, OfThreadsIsTheirOwn) {
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

TEST_F(Binding, IsLeftAloneWhereNothingIsKnown) {
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
