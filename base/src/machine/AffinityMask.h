#pragma once

#include "machine/MachineExport.h"

#include <memory>
#include <string>

struct hwloc_bitmap_s;

/// A set of processors by the operating system's numbers: bit n is its processor n.
///
/// These are not the dense LPU indices of CpuTopology, which translates between the two. A value type of any
/// width; a mask that was moved from may only be assigned or destroyed. Local; one thread at a time for one
/// mask.
class ORVEX_MACHINE_EXPORT AffinityMask {
public:
    /// The empty set.
    AffinityMask();
    AffinityMask(const AffinityMask& rhs);
    AffinityMask(AffinityMask&& rhs) noexcept;
    AffinityMask& operator=(const AffinityMask& rhs);
    AffinityMask& operator=(AffinityMask&& rhs) noexcept;
    ~AffinityMask();
    void swap(AffinityMask& rhs) noexcept { _impl.swap(rhs._impl); }

    /// Intersection, union, symmetric difference.
    AffinityMask& operator&=(const AffinityMask& rhs);
    AffinityMask& operator|=(const AffinityMask& rhs);
    AffinityMask& operator^=(const AffinityMask& rhs);
    AffinityMask operator&(const AffinityMask& rhs) const;
    AffinityMask operator|(const AffinityMask& rhs) const;
    AffinityMask operator^(const AffinityMask& rhs) const;

    bool operator==(const AffinityMask& rhs) const;
    bool operator!=(const AffinityMask& rhs) const { return !(*this == rhs); }
    /// Whether the two sets share a processor.
    bool intersectsWith(const AffinityMask& other) const;
    /// Whether each processor of this set is in `other`.
    bool isIncludedIn(const AffinityMask& other) const;
    bool empty() const;
    void clear();

    /// "0b" and the bits, the highest processor first, of at least `width` digits; never cut to `width`.
    std::string toBinaryString(unsigned width) const;
    /// "0x" and lower-case hexadecimal digits, the highest first, at least `width` of them; never cut to
    /// `width`.
    std::string toHexString(unsigned width) const;

private:
    friend class Affinity;
    friend class CpuTopology;
    friend class AffinityMaskTestAccess;

    class Impl;

    explicit AffinityMask(const hwloc_bitmap_s* bitmap);

    const hwloc_bitmap_s* getHwlocMask() const;
    hwloc_bitmap_s* getHwlocMask();

    std::unique_ptr<Impl> _impl;
};
