#pragma once

#include "machine/MachineExport.h"

#include <memory>
#include <new>
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
    AffinityMask(AffinityMask&& rhs) noexcept = default;
    AffinityMask& operator=(const AffinityMask& rhs);
    AffinityMask& operator=(AffinityMask&& rhs) noexcept = default;
    ~AffinityMask() = default;
    void swap(AffinityMask& rhs) noexcept { _bitmap.swap(rhs._bitmap); }

    /// Intersection, union, symmetric difference. They raise std::bad_alloc where a set can't grow.
    AffinityMask& operator&=(const AffinityMask& rhs) { return combineInto(*this, _hwloc.intersect, rhs); }
    AffinityMask& operator|=(const AffinityMask& rhs) { return combineInto(*this, _hwloc.unite, rhs); }
    AffinityMask& operator^=(const AffinityMask& rhs) { return combineInto(*this, _hwloc.differ, rhs); }
    AffinityMask operator&(const AffinityMask& rhs) const;
    AffinityMask operator|(const AffinityMask& rhs) const;
    AffinityMask operator^(const AffinityMask& rhs) const;

    bool operator==(const AffinityMask& rhs) const {
        return _hwloc.isEqual(_bitmap.get(), rhs._bitmap.get()) != 0;
    }
    bool operator!=(const AffinityMask& rhs) const { return !(*this == rhs); }
    /// Whether the two sets share a processor.
    bool intersectsWith(const AffinityMask& other) const {
        return _hwloc.intersects(_bitmap.get(), other._bitmap.get()) != 0;
    }
    /// Whether each processor of this set is in `other`.
    bool isIncludedIn(const AffinityMask& other) const {
        return _hwloc.isIncluded(_bitmap.get(), other._bitmap.get()) != 0;
    }
    bool empty() const { return _hwloc.isZero(_bitmap.get()) != 0; }
    void clear() { _hwloc.clear(_bitmap.get()); }

    /// "0b" and the bits, the highest processor first, of at least `width` digits; never cut to `width`.
    std::string toBinaryString(unsigned width) const;
    /// "0x" and lower-case hexadecimal digits, the highest first, at least `width` of them; never cut to
    /// `width`.
    std::string toHexString(unsigned width) const;

private:
    friend class Affinity;
    friend class CpuTopology;
    friend class AffinityMaskTestAccess;

    struct Free {
        void operator()(hwloc_bitmap_s* bitmap) const { _hwloc.free(bitmap); }
    };

    using Combine = int (*)(hwloc_bitmap_s* result, const hwloc_bitmap_s* a, const hwloc_bitmap_s* b);
    using Compare = int (*)(const hwloc_bitmap_s* a, const hwloc_bitmap_s* b);
    /// hwloc's own operations. A call by pointer costs no more than a call inside hwloc, and a program that
    /// includes this header needn't link hwloc.
    struct Hwloc {
        Combine intersect, unite, differ;
        Compare isEqual, intersects, isIncluded;
        int (*isZero)(const hwloc_bitmap_s* bitmap);
        void (*clear)(hwloc_bitmap_s* bitmap);
        void (*free)(hwloc_bitmap_s* bitmap);
    };
    static const Hwloc _hwloc;

    explicit AffinityMask(const hwloc_bitmap_s* bitmap);
    explicit AffinityMask(std::unique_ptr<hwloc_bitmap_s, Free> bitmap);

    /// Stores the result of `combine` for this set and `rhs` in `result`.
    AffinityMask& combineInto(AffinityMask& result, Combine combine, const AffinityMask& rhs) const {
        if (combine(result._bitmap.get(), _bitmap.get(), rhs._bitmap.get()) < 0) [[unlikely]]
            throw std::bad_alloc();
        return result;
    }

    const hwloc_bitmap_s* getHwlocMask() const { return _bitmap.get(); }
    hwloc_bitmap_s* getHwlocMask() { return _bitmap.get(); }

    std::unique_ptr<hwloc_bitmap_s, Free> _bitmap;
};
