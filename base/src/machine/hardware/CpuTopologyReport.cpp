#include "machine/CpuTopology.h"

#include "machine/hardware/CpuTopologyImpl.h"

#include "kernel/Raise.h"

#include <algorithm>
#include <functional>
#include <iomanip>
#include <sstream>

namespace {

using Lpus = std::vector<unsigned>;

std::string pad(unsigned index, int width) {
    std::ostringstream text;
    text << std::setw(width) << std::setfill('0') << index;
    return text.str();
}

std::string blankBetween(const std::vector<std::string>& texts) {
    std::string all;
    for (const std::string& text : texts)
        all += (all.empty() ? "" : " ") + text;
    return all;
}

const char* yesOrNo(bool value) {
    return value ? "yes" : "no";
}

/// Ascending indices as maximal runs: "S00", "S00,S01", "S00-S03".
std::string printRanges(char prefix, const std::vector<unsigned>& list, int width) {
    ORVEX_ASSERT(!list.empty(), "Unexpected empty list.");
    std::string text;
    const auto add = [&](const char* separator, unsigned index) {
        text += (text.empty() ? "" : separator) + (prefix + pad(index, width));
    };
    for (std::size_t first = 0; first < list.size();) {
        std::size_t last = first;
        while (last + 1 < list.size() && list[last + 1] == list[last] + 1)
            ++last;
        add(",", list[first]);
        if (last > first)
            add(last == first + 1 ? "," : "-", list[last]);
        first = last + 1;
    }
    return text;
}

/// One kind of group of LPUs, as it is written.
struct Level {
    char prefix;
    unsigned count;
    int width;
    std::function<Lpus(unsigned)> getLpus;
};

/// LPUs by physical core, in the order of each core's first LPU.
std::vector<Lpus> groupLpusByPhysicalCore(const CpuTopology& topology, const Lpus& lpus) {
    std::vector<Lpus> groups;
    std::vector<std::size_t> groupOfCore(topology.getNumberPhysicalCores(), lpus.size());
    for (const unsigned lpu : lpus) {
        std::size_t& group = groupOfCore[topology.getPhysicalCoreForLpu(lpu)];
        if (group == lpus.size()) {
            group = groups.size();
            groups.emplace_back();
        }
        groups[group].push_back(lpu);
    }
    return groups;
}

/// A mask in the words of one level.
class MaskText {
public:
    MaskText(const CpuTopology& topology, const Lpus& lpus)
        : _topology(topology), _count(lpus.size()), _isIn(topology.getNumberLpus(), false) {
        for (const unsigned lpu : lpus)
            _isIn[lpu] = true;
    }

    /// Whole groups that make up exactly the mask, as ranges; empty when they don't.
    std::string printWhole(const Level& level) const {
        std::vector<unsigned> whole;
        std::size_t count = 0;
        for (unsigned group = 0; group < level.count; ++group) {
            const Lpus lpus = level.getLpus(group);
            if (std::all_of(lpus.begin(), lpus.end(), [this](unsigned lpu) { return _isIn[lpu]; })) {
                whole.push_back(group);
                count += lpus.size();
            }
        }
        return whole.empty() || count != _count ? std::string()
                                                : printRanges(level.prefix, whole, level.width);
    }

    /// Each group that the mask touches with a digit for each LPU: "S00[10 10 00 00]".
    std::string printDetails(const Level& level) const {
        std::string text;
        for (unsigned group = 0; group < level.count; ++group) {
            const Lpus lpus = level.getLpus(group);
            if (std::none_of(lpus.begin(), lpus.end(), [this](unsigned lpu) { return _isIn[lpu]; }))
                continue;
            std::vector<std::string> cores;
            for (const Lpus& core : groupLpusByPhysicalCore(_topology, lpus)) {
                cores.emplace_back();
                for (const unsigned lpu : core)
                    cores.back() += _isIn[lpu] ? '1' : '0';
            }
            text += (text.empty() ? "" : ",") + (level.prefix + pad(group, level.width)) + "[" +
                    blankBetween(cores) + "]";
        }
        return text;
    }

private:
    const CpuTopology& _topology;
    std::size_t _count;
    std::vector<bool> _isIn;
};

std::string describeMask(const CpuTopology& topology, const Lpus& lpus, std::size_t maxLength,
                         const Level& socket, const Level& numaNode, const Level& physicalCore) {
    if (lpus.empty())
        return "-";
    const MaskText mask(topology, lpus);
    for (const Level* level : {&socket, &numaNode})
        if (std::string whole = mask.printWhole(*level); !whole.empty())
            return whole;
    std::string sockets = mask.printDetails(socket);
    if (sockets.size() <= maxLength)
        return sockets;
    std::string numaNodes = mask.printDetails(numaNode);
    if (numaNodes.size() <= maxLength)
        return numaNodes;
    std::string cores = mask.printWhole(physicalCore);
    if (cores.empty())
        cores = mask.printDetails(physicalCore);
    if (cores.size() <= maxLength)
        return cores;
    return std::min({sockets, numaNodes, cores},
                    [](const std::string& a, const std::string& b) { return a.size() < b.size(); });
}

} // namespace

std::string CpuTopology::printLpuList(const std::vector<unsigned>& lpus, unsigned maxListLength) const {
    const std::vector<Lpus> groups = groupLpusByPhysicalCore(*this, lpus);
    std::vector<std::string> texts;
    for (const Lpus& group : groups) {
        texts.emplace_back();
        for (const unsigned lpu : group)
            texts.back() += (texts.back().empty() ? "" : "+") + pad(lpu, _impl->_lpuWidth);
    }
    if (lpus.size() > maxListLength && groups.size() > 2) {
        std::size_t head = 0;
        std::size_t tail = groups.size() - 1;
        std::size_t taken = groups[head].size() + groups[tail].size();
        while (head + 1 < tail - 1) {
            const std::size_t both = groups[head + 1].size() + groups[tail - 1].size();
            if (taken + both > maxListLength)
                break;
            taken += both;
            ++head;
            --tail;
        }
        texts.erase(texts.begin() + static_cast<std::ptrdiff_t>(head) + 1,
                    texts.begin() + static_cast<std::ptrdiff_t>(tail));
        texts.insert(texts.begin() + static_cast<std::ptrdiff_t>(head) + 1, "...");
    }
    return "[" + blankBetween(texts) + "]\n";
}

std::string CpuTopology::print(bool sockets, bool numaNodes, bool physicalCores, bool summary,
                               unsigned indent, unsigned maxListLength) const {
    const std::string blanks(indent, ' ');
    const unsigned listLength = std::max(maxListLength, 2u);
    std::string text;
    const auto addLine = [&](const std::string& name, const Lpus& lpus) {
        text += blanks + name + " : " + printLpuList(lpus, listLength);
    };
    const bool areOne = sockets && numaNodes && areSocketsEqualToNumaNodes();
    if (sockets)
        for (unsigned i = 0; i < getNumberSockets(); ++i)
            addLine("S" + pad(i, _impl->_socketWidth) +
                        (areOne ? " = N" + pad(i, _impl->_numaNodeWidth) : ""),
                    getLpusForSocket(i));
    if (numaNodes && !areOne)
        for (unsigned i = 0; i < getNumberNumaNodes(); ++i)
            addLine("N" + pad(i, _impl->_numaNodeWidth), getLpusForNumaNode(i));
    if (physicalCores && usesSMT())
        for (unsigned i = 0; i < getNumberPhysicalCores(); ++i)
            addLine("C" + pad(i, _impl->_physicalCoreWidth), getLpusForPhysicalCore(i));
    if (!summary)
        return text;

    const char* relation = "";
    if (areNumaNodesSubsetOfSockets())
        relation = " (NUMA nodes are a subset of the sockets)";
    else if (areSocketsSubsetOfNumaNodes())
        relation = " (socket are a subset of the NUMA nodes)";
    std::ostringstream lines;
    lines << blanks << "LPUs = " << getNumberLpus() << ", physical cores = " << getNumberPhysicalCores()
          << ", NUMA nodes = " << getNumberNumaNodes() << ", sockets = " << getNumberSockets() << '\n'
          << blanks << "Sockets are equal to NUMA nodes: " << yesOrNo(areSocketsEqualToNumaNodes())
          << relation << '\n'
          << blanks << "Simultaneous multithreading (SMT): " << yesOrNo(usesSMT()) << '\n'
          << blanks << "Symmetric: " << yesOrNo(isSymmetric()) << '\n'
          << blanks << "Information obtained via hwloc: LPUs = " << yesOrNo(reliableLpuInformationAvailable())
          << ", physical cores = " << yesOrNo(reliablePhysicalCoreInformationAvailable())
          << ", NUMA nodes = " << yesOrNo(reliableNumaNodeInformationAvailable())
          << ", sockets = " << yesOrNo(reliableSocketInformationAvailable()) << '\n';
    return text + lines.str();
}

std::string CpuTopology::printAffinityMask(const AffinityMask& mask, unsigned maxLength) const {
    const Lpus lpus = getLpusFromMask(mask);
    const Level socket{'S', getNumberSockets(), _impl->_socketWidth,
                       [this](unsigned i) { return getLpusForSocket(i); }};
    const Level numaNode{'N', getNumberNumaNodes(), _impl->_numaNodeWidth,
                         [this](unsigned i) { return getLpusForNumaNode(i); }};
    const Level physicalCore{'C', getNumberPhysicalCores(), _impl->_physicalCoreWidth,
                             [this](unsigned i) { return getLpusForPhysicalCore(i); }};
    return "{" + describeMask(*this, lpus, maxLength, socket, numaNode, physicalCore) + " : " +
           mask.toHexString((getNumberLpus() + 3) / 4) + "}";
}
