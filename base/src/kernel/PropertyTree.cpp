#include "kernel/PropertyTree.h"

#include "kernel/Raise.h"

#include <cmath>
#include <cstring>
#include <utility>

namespace PropertyTree {

namespace {

/// Mixes eight bytes at a time; keys are short. Seeded by where the process was loaded.
std::size_t hashKey(std::string_view key) {
    static const char anchor = 0;
    constexpr std::uint64_t MULTIPLIER = 0x9E3779B97F4A7C15u;
    std::uint64_t hash = reinterpret_cast<std::uintptr_t>(&anchor) ^ (key.size() * MULTIPLIER);
    const auto mix = [&](std::uint64_t word) {
        hash = (hash ^ word) * MULTIPLIER;
        hash ^= hash >> 32;
    };
    std::uint64_t word = 0;
    while (key.size() >= sizeof word) {
        std::memcpy(&word, key.data(), sizeof word);
        mix(word);
        key.remove_prefix(sizeof word);
    }
    word = 0;
    if (!key.empty())
        std::memcpy(&word, key.data(), key.size());
    mix(word);
    return static_cast<std::size_t>(hash);
}

/// Slots for `count` members: a power of two that stays at most half full as they double.
std::size_t indexSize(std::size_t count) {
    std::size_t size = 64;
    while (size < count * 4)
        size *= 2;
    return size;
}

/// The slot that holds `key`, or the free one where it belongs.
std::size_t findSlot(const std::vector<std::uint32_t>& index, const std::vector<Member>& members,
                     std::string_view key) {
    const std::size_t mask = index.size() - 1;
    std::size_t slot = hashKey(key) & mask;
    while (index[slot] != 0 && members[index[slot] - 1].key != key)
        slot = (slot + 1) & mask;
    return slot;
}

} // namespace

Tree::Tree() = default;
Tree::Tree(const Tree&) = default;
Tree::Tree(Tree&&) noexcept = default;
Tree& Tree::operator=(const Tree&) = default;
Tree& Tree::operator=(Tree&&) noexcept = default;
Tree::~Tree() = default;

bool Tree::operator==(const Tree& other) const {
    return _members == other._members;
}

std::size_t Tree::findPosition(std::string_view key) const {
    if (!_index.empty()) {
        const std::uint32_t entry = _index[findSlot(_index, _members, key)];
        return entry == 0 ? NOT_FOUND : entry - 1;
    }
    for (std::size_t i = 0; i < _members.size(); ++i)
        if (_members[i].key == key)
            return i;
    return NOT_FOUND;
}

const Value* Tree::find(std::string_view key) const {
    const std::size_t position = findPosition(key);
    return position == NOT_FOUND ? nullptr : &_members[position].value;
}

Value* Tree::find(std::string_view key) {
    return const_cast<Value*>(std::as_const(*this).find(key));
}

void Tree::append(std::string key, Value value) {
    ORVEX_ASSERT(_members.size() < UINT32_MAX, "Too many keys in one Properties");
    _members.push_back(Member{std::move(key), std::move(value)});
    if (_index.empty() || _members.size() * 2 > _index.size())
        buildIndex();
    else
        _index[findSlot(_index, _members, _members.back().key)] = static_cast<std::uint32_t>(_members.size());
}

void Tree::remove(std::string_view key) {
    const std::size_t position = findPosition(key);
    if (position == NOT_FOUND)
        return;
    _members.erase(_members.begin() + static_cast<std::ptrdiff_t>(position));
    buildIndex();
}

const Member* Tree::buildIndex() {
    _index.clear();
    if (_members.size() <= MAX_UNINDEXED)
        return nullptr;
    _index.assign(indexSize(_members.size()), 0);
    for (std::size_t i = 0; i < _members.size(); ++i) {
        std::uint32_t& entry = _index[findSlot(_index, _members, _members[i].key)];
        if (entry != 0)
            return &_members[i];
        entry = static_cast<std::uint32_t>(i + 1);
    }
    return nullptr;
}

const std::string* Tree::assign(std::vector<Member> members) {
    _members = std::move(members);
    if (const Member* repeated = buildIndex())
        return &repeated->key;
    if (!_index.empty())
        return nullptr;
    for (std::size_t i = 1; i < _members.size(); ++i)
        for (std::size_t j = 0; j < i; ++j)
            if (_members[i].key == _members[j].key)
                return &_members[i].key;
    return nullptr;
}

bool Value::operator==(const Value& other) const {
    if (const double* mine = std::get_if<double>(&data))
        if (const double* theirs = std::get_if<double>(&other.data))
            return *mine == *theirs || (std::isnan(*mine) && std::isnan(*theirs));
    return data == other.data;
}

} // namespace PropertyTree
