#include "machine/AffinityMask.h"

#include <hwloc.h>

#include <algorithm>
#include <new>
#include <utility>
#include <vector>

namespace {

hwloc_bitmap_t checked(hwloc_bitmap_t bitmap) {
    if (!bitmap)
        throw std::bad_alloc();
    return bitmap;
}

void check(int result) {
    if (result < 0) [[unlikely]] // a bitmap that couldn't grow
        throw std::bad_alloc();
}

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

class AffinityMask::Impl {
public:
    explicit Impl(hwloc_bitmap_t set) : bitmap(checked(set)) {}
    ~Impl() { hwloc_bitmap_free(bitmap); }
    Impl(const Impl&) = delete;
    Impl& operator=(const Impl&) = delete;

    const hwloc_bitmap_t bitmap;
};

AffinityMask::AffinityMask() : _impl(std::make_unique<Impl>(hwloc_bitmap_alloc())) {}
AffinityMask::AffinityMask(const hwloc_bitmap_s* bitmap)
    : _impl(std::make_unique<Impl>(hwloc_bitmap_dup(bitmap))) {}
AffinityMask::AffinityMask(const AffinityMask& rhs) : AffinityMask(rhs.getHwlocMask()) {}
AffinityMask::AffinityMask(AffinityMask&& rhs) noexcept = default;
AffinityMask& AffinityMask::operator=(AffinityMask&& rhs) noexcept = default;
AffinityMask::~AffinityMask() = default;

AffinityMask& AffinityMask::operator=(const AffinityMask& rhs) {
    AffinityMask copy(rhs);
    swap(copy);
    return *this;
}

AffinityMask& AffinityMask::operator&=(const AffinityMask& rhs) {
    check(hwloc_bitmap_and(_impl->bitmap, _impl->bitmap, rhs._impl->bitmap));
    return *this;
}

AffinityMask& AffinityMask::operator|=(const AffinityMask& rhs) {
    check(hwloc_bitmap_or(_impl->bitmap, _impl->bitmap, rhs._impl->bitmap));
    return *this;
}

AffinityMask& AffinityMask::operator^=(const AffinityMask& rhs) {
    check(hwloc_bitmap_xor(_impl->bitmap, _impl->bitmap, rhs._impl->bitmap));
    return *this;
}

AffinityMask AffinityMask::operator&(const AffinityMask& rhs) const {
    AffinityMask result;
    check(hwloc_bitmap_and(result._impl->bitmap, _impl->bitmap, rhs._impl->bitmap));
    return result;
}

AffinityMask AffinityMask::operator|(const AffinityMask& rhs) const {
    AffinityMask result;
    check(hwloc_bitmap_or(result._impl->bitmap, _impl->bitmap, rhs._impl->bitmap));
    return result;
}

AffinityMask AffinityMask::operator^(const AffinityMask& rhs) const {
    AffinityMask result;
    check(hwloc_bitmap_xor(result._impl->bitmap, _impl->bitmap, rhs._impl->bitmap));
    return result;
}

bool AffinityMask::operator==(const AffinityMask& rhs) const {
    return hwloc_bitmap_isequal(_impl->bitmap, rhs._impl->bitmap) != 0;
}

bool AffinityMask::intersectsWith(const AffinityMask& other) const {
    return hwloc_bitmap_intersects(_impl->bitmap, other._impl->bitmap) != 0;
}

bool AffinityMask::isIncludedIn(const AffinityMask& other) const {
    return hwloc_bitmap_isincluded(_impl->bitmap, other._impl->bitmap) != 0;
}

bool AffinityMask::empty() const {
    return hwloc_bitmap_iszero(_impl->bitmap) != 0;
}

void AffinityMask::clear() {
    hwloc_bitmap_zero(_impl->bitmap);
}

const hwloc_bitmap_s* AffinityMask::getHwlocMask() const {
    return _impl->bitmap;
}

hwloc_bitmap_s* AffinityMask::getHwlocMask() {
    return _impl->bitmap;
}

std::string AffinityMask::toBinaryString(unsigned width) const {
    std::vector<bool> bits = getBits(_impl->bitmap);
    bits.resize(std::max(bits.size(), std::size_t{std::max(width, 1u)}));
    std::string text = "0b";
    for (auto bit = bits.rbegin(); bit != bits.rend(); ++bit)
        text += *bit ? '1' : '0';
    return text;
}

std::string AffinityMask::toHexString(unsigned width) const {
    std::vector<bool> bits = getBits(_impl->bitmap);
    const std::size_t digits = std::max((bits.size() + 3) / 4, std::size_t{std::max(width, 1u)});
    bits.resize(4 * digits);
    std::string text = "0x";
    for (std::size_t digit = digits; digit-- > 0;) {
        const std::size_t bit = 4 * digit;
        text += "0123456789abcdef"[bits[bit] + 2 * bits[bit + 1] + 4 * bits[bit + 2] + 8 * bits[bit + 3]];
    }
    return text;
}
