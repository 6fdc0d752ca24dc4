#include "kernel/PropertyTree.h"

#include "kernel/Raise.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <memory>
#include <new>
#include <type_traits>
#include <utility>

namespace PropertyTree {

namespace {

constexpr std::size_t NOT_FOUND = static_cast<std::size_t>(-1);
/// Up to here looking at each key is the faster way.
constexpr std::size_t MAX_UNINDEXED = 16;
/// Below this much waste nothing is copied.
constexpr std::size_t MIN_WASTE = 4096;
constexpr std::size_t ALIGNMENT = alignof(std::max_align_t);
constexpr std::size_t MIN_BLOCK = 512;
constexpr std::size_t MAX_BLOCK = std::size_t(1) << 20;

static_assert(sizeof(Value) == 16 && std::is_trivially_copyable_v<Value>);
static_assert(sizeof(Member) == 32 && std::is_trivially_copyable_v<Member>);

using Index = std::vector<std::uint32_t>;

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

/// The slot that holds `key`, or the free one where it belongs.
std::size_t findSlot(const Index& index, std::span<const Member> members, std::string_view key) {
    const std::size_t mask = index.size() - 1;
    std::size_t slot = hashKey(key) & mask;
    while (index[slot] != 0 && members[index[slot] - 1].key != key)
        slot = (slot + 1) & mask;
    return slot;
}

/// Makes the index of `members`: a power of two of slots, at most half full while the members double. Returns
/// the first key that stands twice, null when there is none.
const std::string_view* buildIndex(Index& index, std::span<const Member> members) {
    index.clear();
    if (members.size() <= MAX_UNINDEXED)
        return nullptr;
    std::size_t size = 64;
    while (size < members.size() * 4)
        size *= 2;
    index.assign(size, 0);
    for (std::size_t i = 0; i < members.size(); ++i) {
        std::uint32_t& entry = index[findSlot(index, members, members[i].key)];
        if (entry != 0)
            return &members[i].key;
        entry = static_cast<std::uint32_t>(i + 1);
    }
    return nullptr;
}

const std::string_view* findDuplicateUnindexed(std::span<const Member> members) {
    for (std::size_t i = 1; i < members.size(); ++i)
        for (std::size_t j = 0; j < i; ++j)
            if (members[i].key == members[j].key)
                return &members[i].key;
    return nullptr;
}

/// Bytes of the arena behind `value`.
std::size_t footprint(const Value& value) {
    std::size_t size = 0;
    switch (value.getKind()) {
    case Kind::NOTHING:
    case Kind::BOOL:
    case Kind::INTEGER:
    case Kind::NATURAL:
    case Kind::REAL:
        break;
    case Kind::TEXT:
        size = value.getText().size();
        break;
    case Kind::ARRAY:
        size = value.getElements().size_bytes();
        for (const Value& element : value.getElements())
            size += footprint(element);
        break;
    case Kind::OBJECT:
        size = value.getMembers().size_bytes();
        for (const Member& member : value.getMembers())
            size += member.key.size() + footprint(member.value);
        break;
    }
    return size;
}

template <class T>
std::span<T> storeAll(Arena& arena, std::span<const T> items) {
    if (items.empty())
        return {};
    T* stored = reinterpret_cast<T*>(arena.allocate(items.size_bytes()));
    std::uninitialized_copy(items.begin(), items.end(), stored);
    return {stored, items.size()};
}

} // namespace

Value::Value(Kind kind, std::size_t size)
    : _kind(kind), _size(static_cast<std::uint32_t>(size)), _integer(0) {
    ORVEX_ASSERT_AS(size <= UINT32_MAX, "size <= UINT32_MAX", "A value of a Properties is too large");
}

Value Value::boolean(bool value) {
    Value result(Kind::BOOL, 0);
    result._integer = value ? 1 : 0;
    return result;
}

Value Value::integer(std::int64_t value) {
    Value result(Kind::INTEGER, 0);
    result._integer = value;
    return result;
}

Value Value::natural(std::uint64_t value) {
    if (value <= static_cast<std::uint64_t>(INT64_MAX))
        return integer(static_cast<std::int64_t>(value));
    Value result(Kind::NATURAL, 0);
    result._natural = value;
    return result;
}

Value Value::real(double value) {
    Value result(Kind::REAL, 0);
    result._real = value;
    return result;
}

Value Value::text(std::string_view value) {
    Value result(Kind::TEXT, value.size());
    result._text = value.data();
    return result;
}

Value Value::array(std::span<const Value> value) {
    Value result(Kind::ARRAY, value.size());
    result._elements = value.data();
    return result;
}

Value Value::object(std::span<const Member> value) {
    Value result(Kind::OBJECT, value.size());
    result._members = value.data();
    return result;
}

bool Value::operator==(const Value& other) const {
    if (_kind != other._kind)
        return false;
    switch (_kind) {
    case Kind::NOTHING:
        return true;
    case Kind::BOOL:
    case Kind::INTEGER:
    case Kind::NATURAL:
        return _integer == other._integer;
    case Kind::REAL:
        return _real == other._real || (std::isnan(_real) && std::isnan(other._real));
    case Kind::TEXT:
        return getText() == other.getText();
    case Kind::ARRAY:
        return std::ranges::equal(getElements(), other.getElements());
    case Kind::OBJECT:
        return std::ranges::equal(getMembers(), other.getMembers());
    }
    return false;
}

struct alignas(ALIGNMENT) Arena::Block {
    Block* before;
};

Arena::Arena(Arena&& other) noexcept {
    *this = std::move(other);
}

Arena& Arena::operator=(Arena&& other) noexcept {
    std::swap(_blocks, other._blocks);
    std::swap(_next, other._next);
    std::swap(_end, other._end);
    std::swap(_used, other._used);
    return *this;
}

Arena::~Arena() {
    while (_blocks != nullptr)
        ::operator delete(std::exchange(_blocks, _blocks->before));
}

void Arena::reserve(std::size_t size) {
    if (size <= static_cast<std::size_t>(_end - _next))
        return;
    const std::size_t bytes = sizeof(Block) + std::max(size, std::clamp(_used, MIN_BLOCK, MAX_BLOCK));
    char* const memory = static_cast<char*>(::operator new(bytes));
    _blocks = ::new (memory) Block{_blocks};
    _next = memory + sizeof(Block);
    _end = memory + bytes;
}

char* Arena::allocate(std::size_t size) {
    const std::size_t rounded = (size + 7) & ~std::size_t(7);
    reserve(rounded);
    _used += rounded;
    return std::exchange(_next, _next + rounded);
}

std::string_view Arena::store(std::string_view text) {
    if (text.empty())
        return {};
    char* stored = allocate(text.size());
    std::memcpy(stored, text.data(), text.size());
    return {stored, text.size()};
}

std::span<Value> Arena::store(std::span<const Value> values) {
    return storeAll(*this, values);
}

std::span<Member> Arena::store(std::span<const Member> members) {
    return storeAll(*this, members);
}

Value Arena::copy(const Value& value) {
    if (value.getKind() == Kind::TEXT)
        return Value::text(store(value.getText()));
    if (value.getKind() == Kind::ARRAY) {
        const std::span<Value> elements = store(value.getElements());
        for (Value& element : elements)
            element = copy(element);
        return Value::array(elements);
    }
    if (value.getKind() == Kind::OBJECT) {
        const std::span<Member> members = store(value.getMembers());
        for (Member& member : members)
            member = Member{store(member.key), copy(member.value)};
        return Value::object(members);
    }
    return value;
}

Tree::Tree() = default;
Tree::Tree(const Tree& other) : Tree(std::span<const Member>(other._members)) {}
Tree::Tree(Tree&&) noexcept = default;
Tree& Tree::operator=(Tree&&) noexcept = default;
Tree::~Tree() = default;

Tree::Tree(std::span<const Member> members) {
    const std::size_t size = footprint(Value::object(members));
    // Each piece may be rounded up; where this isn't enough, the arena takes a further block.
    _arena.reserve(size + size / 4);
    _members.reserve(members.size());
    for (const Member& member : members)
        _members.push_back(Member{_arena.store(member.key), _arena.copy(member.value)});
    buildIndex(_index, _members);
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

void Tree::append(std::string_view key, const Value& value) {
    ORVEX_ASSERT(_members.size() < UINT32_MAX, "A Properties has too many keys");
    _members.push_back(Member{_arena.store(key), value});
    if (_index.empty() || _members.size() * 2 > _index.size())
        buildIndex(_index, _members);
    else
        _index[findSlot(_index, _members, _members.back().key)] = static_cast<std::uint32_t>(_members.size());
}

void Tree::replace(std::string_view key, const Value& value) {
    Value& present = _members[findPosition(key)].value;
    const Value before = std::exchange(present, value);
    noteWaste(before, 0);
}

void Tree::remove(std::string_view key) {
    const std::size_t position = findPosition(key);
    if (position == NOT_FOUND)
        return;
    const Member removed = _members[position];
    _members.erase(_members.begin() + static_cast<std::ptrdiff_t>(position));
    buildIndex(_index, _members);
    noteWaste(removed.value, removed.key.size());
}

void Tree::noteWaste(const Value& value, std::size_t more) {
    _waste += footprint(value) + more;
    if (_waste < MIN_WASTE || _waste < _arena.getUsed() / 2)
        return;
    *this = Tree(std::span<const Member>(_members));
}

const std::string_view* Tree::assign(std::span<const Member> members) {
    _members.assign(members.begin(), members.end());
    const std::string_view* repeated = buildIndex(_index, _members);
    return _index.empty() ? findDuplicateUnindexed(_members) : repeated;
}

const std::string_view* findDuplicate(std::span<const Member> members) {
    if (members.size() <= MAX_UNINDEXED)
        return findDuplicateUnindexed(members);
    Index index;
    return buildIndex(index, members);
}

} // namespace PropertyTree
