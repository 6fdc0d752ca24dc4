#pragma once

#include "machine/AffinityMask.h"
#include "machine/MachineExport.h"

#include <memory>
#include <string>
#include <vector>

struct hwloc_topology;

/// The hardware of one host: its logical processing units (LPUs) and how they group into physical cores, NUMA
/// nodes and sockets.
///
/// All is told by dense indices: LPU 0..n-1, physical core 0..c-1, NUMA node 0..m-1, socket 0..s-1, never by
/// the operating system's numbers. Each query has an answer also where the host tells little: without core
/// information each LPU counts as a core; without NUMA or socket information one node or socket holds all
/// LPUs; without any, there is one LPU. The counts, the member lists and the groups of members of a missing
/// level take any index. Checked all the same are getLpusForPhysicalCore, getPhysicalCoreForLpu, the masks,
/// getSocketsForNumaNode and getNumaNodesForSocket; the last two refuse any index when there is no LPU.
///
/// Constant after construction and limitTo(): every query is local and may come from any thread. Lists are
/// ascending. An index out of range raises an InternalError.
class ORVEX_MACHINE_EXPORT CpuTopology {
public:
    /// The places of the LPUs that getLpuSubset() takes.
    enum LpuSelectionMode : int {
        Spread = 0, ///< over sockets and NUMA nodes
        Compact = 1 ///< from the lowest index on
    };

    /// Detects this host. Never fails: without information the model is empty.
    CpuTopology();
    /// Takes the text form that another process of this host got from toString(); empty: detects this host.
    explicit CpuTopology(const std::string& text);
    CpuTopology(CpuTopology&&) noexcept;
    CpuTopology& operator=(CpuTopology&&) noexcept;
    ~CpuTopology();

    /// The text form, with its last zero byte; empty when nothing was detected.
    std::string toString() const;

    // ---- Available information, and the shape.

    bool reliableLpuInformationAvailable() const;
    bool reliablePhysicalCoreInformationAvailable() const;
    bool reliableNumaNodeInformationAvailable() const;
    bool reliableSocketInformationAvailable() const;

    /// Whether all cores, NUMA nodes and sockets have as many members as the others of their kind.
    bool isSymmetric() const;
    /// Socket i holds the LPUs of NUMA node i, for all i.
    bool areSocketsEqualToNumaNodes() const;
    /// Each NUMA node is a true part of one socket.
    bool areNumaNodesSubsetOfSockets() const;
    /// Each socket is a true part of one NUMA node.
    bool areSocketsSubsetOfNumaNodes() const;
    /// Whether there are more LPUs than physical cores.
    bool usesSMT() const;

    // ---- Counts.

    unsigned getNumberLpus() const;
    unsigned getNumberPhysicalCores() const;
    unsigned getNumberNumaNodes() const;
    unsigned getNumberSockets() const;
    unsigned getNumberLpus(unsigned physicalCore) const;
    unsigned getNumberLpusForNumaNode(unsigned numaNode) const;
    unsigned getNumberLpusForSocket(unsigned socket) const;
    unsigned getNumberPhysicalCoresForNumaNode(unsigned numaNode) const;
    unsigned getNumberPhysicalCoresForSocket(unsigned socket) const;
    unsigned getNumberSocketsForNumaNode(unsigned numaNode) const;
    unsigned getNumberNumaNodesForSocket(unsigned socket) const;

    // ---- Members of a group.

    std::vector<unsigned> getLpusForPhysicalCore(unsigned physicalCore) const;
    std::vector<unsigned> getLpusForNumaNode(unsigned numaNode) const;
    std::vector<unsigned> getLpusForSocket(unsigned socket) const;
    std::vector<unsigned> getPhysicalCoresForNumaNode(unsigned numaNode) const;
    std::vector<unsigned> getPhysicalCoresForSocket(unsigned socket) const;
    /// Those that hold at least one LPU of the other.
    std::vector<unsigned> getSocketsForNumaNode(unsigned numaNode) const;
    std::vector<unsigned> getNumaNodesForSocket(unsigned socket) const;

    // ---- The group of a member.

    unsigned getPhysicalCoreForLpu(unsigned lpu) const;
    unsigned getNumaNodeForLpu(unsigned lpu) const;
    unsigned getSocketForLpu(unsigned lpu) const;
    unsigned getNumaNodeForPhysicalCore(unsigned physicalCore) const;
    unsigned getSocketForPhysicalCore(unsigned physicalCore) const;

    // ---- Masks.

    /// All processors of the host; empty when nothing was detected.
    AffinityMask getTopologyMask() const;
    /// The processors of `mask` that this process may use: the operating system, the batch system and
    /// limitTo() may take some away. `mask` itself when nothing was detected.
    AffinityMask restrictToAvailableResources(AffinityMask&& mask) const;
    /// From now on restrictToAvailableResources() takes every processor away that isn't in `mask`. A mask
    /// without any available processor changes nothing. To be called before other threads ask.
    void limitTo(const AffinityMask& mask);
    AffinityMask getLpuMask(unsigned lpu) const;
    AffinityMask getPhysicalCoreMask(unsigned physicalCore) const;
    AffinityMask getNumaMask(unsigned numaNode) const;
    AffinityMask getSocketMask(unsigned socket) const;
    /// The union over a list, which need not be sorted.
    AffinityMask getLpuMask(const std::vector<unsigned>& lpus) const;
    AffinityMask getPhysicalCoreMask(const std::vector<unsigned>& physicalCores) const;
    AffinityMask getNumaMask(const std::vector<unsigned>& numaNodes) const;
    AffinityMask getSocketMask(const std::vector<unsigned>& sockets) const;
    /// All that share a processor with the mask.
    std::vector<unsigned> getLpusFromMask(const AffinityMask& mask) const;
    std::vector<unsigned> getPhysicalCoresFromMask(const AffinityMask& mask) const;
    std::vector<unsigned> getNumaNodesFromMask(const AffinityMask& mask) const;
    std::vector<unsigned> getSocketsFromMask(const AffinityMask& mask) const;

    // ---- Choice.

    /// Takes `count` LPUs of `lpus`, or all if there are fewer. Repeats count, and stay.
    ///
    /// Spread takes one of each socket or NUMA node in turn, Compact takes the lowest; both take fast cores
    /// first, where the hardware tells its kinds of cores.
    /// @param spreadOverPhysicalCores  a core's second LPU is taken only after all cores have one
    std::vector<unsigned> getLpuSubset(const std::vector<unsigned>& lpus, unsigned count,
                                       LpuSelectionMode mode, bool spreadOverPhysicalCores) const;

    // ---- Reports for people.

    /// The LPUs of each socket, NUMA node and physical core as asked for, a line each, and a summary.
    /// @param indent         blanks in front of each line
    /// @param maxListLength  longer lists of LPUs are abbreviated in the middle
    std::string print(bool sockets, bool numaNodes, bool physicalCores, bool summary, unsigned indent,
                      unsigned maxListLength) const;
    /// A mask in the words of this host: "{S00-S01 : 0xff}", "{N00 : 0x0f}", "{S00[10 00],S01[11 00] :
    /// 0x31}".
    /// @param maxLength  of the part before the colon, if some level allows it
    std::string printAffinityMask(const AffinityMask& mask, unsigned maxLength) const;

private:
    friend class Affinity;

    class Impl;

    void decideSymmetry();
    void relateSocketsToNumaNodes();
    AffinityMask getAllLpusMask() const;
    hwloc_topology* getHwlocTopology() const;
    std::string printLpuList(const std::vector<unsigned>& lpus, unsigned maxListLength) const;

    std::unique_ptr<Impl> _impl;
};
