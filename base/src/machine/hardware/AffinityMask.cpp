#include "machine/AffinityMask.h"

#include <hwloc.h>

#include <algorithm>
#include <new>
#include <utility>
#include <vector>

namespace {

/// The bits from processor 0 up to the highest one set.
std::vector<bool> getBits(hwloc_const_bitmap_t bitmap) {
    std::vector<bool> bits;
    for (int bit = hwloc_bitmap_next(bitmap, -1); bit >= 0; bit = hwloc_bitmap_next(bitmap, bit)) {
        bits.resize(static_cast<std::size_t>(bit) + 1);
        bits.back() = true;
    }
    return bits;
}

} // namespace

const AffinityMask::Hwloc AffinityMask::_hwloc = {
    &hwloc_bitmap_and,     &hwloc_bitmap_or,         &hwloc_bitmap_xor,
    &hwloc_bitmap_isequal, &hwloc_bitmap_intersects, &hwloc_bitmap_isincluded,
    &hwloc_bitmap_iszero,  &hwloc_bitmap_zero,       &hwloc_bitmap_free};

AffinityMask::AffinityMask(std::unique_ptr<hwloc_bitmap_s, Free> bitmap) : _bitmap(std::move(bitmap)) {
    if (!_bitmap)
        throw std::bad_alloc();
}
AffinityMask::AffinityMask() : AffinityMask(std::unique_ptr<hwloc_bitmap_s, Free>(hwloc_bitmap_alloc())) {}
AffinityMask::AffinityMask(const hwloc_bitmap_s* bitmap)
    : AffinityMask(std::unique_ptr<hwloc_bitmap_s, Free>(hwloc_bitmap_dup(bitmap))) {}
AffinityMask::AffinityMask(const AffinityMask& rhs) : AffinityMask(rhs.getHwlocMask()) {}

AffinityMask& AffinityMask::operator=(const AffinityMask& rhs) {
    AffinityMask copy(rhs);
    swap(copy);
    return *this;
}

AffinityMask AffinityMask::operator&(const AffinityMask& rhs) const {
    AffinityMask result;
    combineInto(result, _hwloc.intersect, rhs);
    return result;
}

AffinityMask AffinityMask::operator|(const AffinityMask& rhs) const {
    AffinityMask result;
    combineInto(result, _hwloc.unite, rhs);
    return result;
}

AffinityMask AffinityMask::operator^(const AffinityMask& rhs) const {
    AffinityMask result;
    combineInto(result, _hwloc.differ, rhs);
    return result;
}

std::string AffinityMask::toBinaryString(unsigned width) const {
    std::vector<bool> bits = getBits(_bitmap.get());
    bits.resize(std::max(bits.size(), std::size_t{std::max(width, 1u)}));
    std::string text = "0b";
    for (auto bit = bits.rbegin(); bit != bits.rend(); ++bit)
        text += *bit ? '1' : '0';
    return text;
}

std::string AffinityMask::toHexString(unsigned width) const {
    std::vector<bool> bits = getBits(_bitmap.get());
    const std::size_t digits = std::max((bits.size() + 3) / 4, std::size_t{std::max(width, 1u)});
    bits.resize(4 * digits);
    std::string text = "0x";
    for (std::size_t digit = digits; digit-- > 0;) {
        const std::size_t bit = 4 * digit;
        text += "0123456789abcdef"[bits[bit] + 2 * bits[bit + 1] + 4 * bits[bit + 2] + 8 * bits[bit + 3]];
    }
    return text;
}
