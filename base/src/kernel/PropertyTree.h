#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string_view>
#include <vector>

/// The data of a Properties: keys in their order, each with a value. Private to the kernel.
///
/// Values are plain 16 bytes; texts, elements and members below the root lie in the Arena of the tree and
/// don't change there. So reading a text costs a handful of allocations, and copying a tree one.
namespace PropertyTree {

enum class Kind : std::uint8_t { NOTHING, BOOL, INTEGER, NATURAL, REAL, TEXT, ARRAY, OBJECT };

struct Member;

/// A value of one of JSON's kinds. NATURAL is an integer above the signed range: an integer that fits is an
/// INTEGER, whatever type it was set with.
class Value {
public:
    Value() : _integer(0) {}
    static Value boolean(bool value);
    static Value integer(std::int64_t value);
    static Value natural(std::uint64_t value);
    static Value real(double value);
    /// The three borrow what lies in the arena of the tree that is to hold them.
    static Value text(std::string_view value);
    static Value array(std::span<const Value> value);
    static Value object(std::span<const Member> value);

    Kind getKind() const { return _kind; }
    bool getBool() const { return _integer != 0; }
    std::int64_t getInteger() const { return _integer; }
    std::uint64_t getNatural() const { return _natural; }
    double getReal() const { return _real; }
    std::string_view getText() const { return {_text, _size}; }
    std::span<const Value> getElements() const { return {_elements, _size}; }
    std::span<const Member> getMembers() const;

    /// NaN equals NaN, so that a tree equals its copy.
    bool operator==(const Value& other) const;

private:
    Value(Kind kind, std::size_t size);

    Kind _kind = Kind::NOTHING;
    std::uint32_t _size = 0; ///< bytes of a text, elements, members
    union {
        std::int64_t _integer;
        std::uint64_t _natural;
        double _real;
        const char* _text;
        const Value* _elements;
        const Member* _members;
    };
};

struct Member {
    std::string_view key; ///< in the arena
    Value value;

    bool operator==(const Member& other) const { return key == other.key && value == other.value; }
};

inline std::span<const Member> Value::getMembers() const {
    return {_members, _size};
}

/// Memory that is given back as a whole.
class Arena {
public:
    Arena() = default;
    Arena(Arena&& other) noexcept;
    Arena& operator=(Arena&& other) noexcept;
    ~Arena();

    /// Makes room for `size` bytes in one piece.
    void reserve(std::size_t size);
    char* allocate(std::size_t size);
    std::string_view store(std::string_view text);
    std::span<Value> store(std::span<const Value> values);
    std::span<Member> store(std::span<const Member> members);
    /// `value` with everything below it.
    Value copy(const Value& value);
    /// [bytes] handed out so far
    std::size_t getUsed() const { return _used; }

private:
    struct Block;

    Block* _blocks = nullptr;
    char* _next = nullptr;
    char* _end = nullptr;
    std::size_t _used = 0;
};

/// The root: members in the order in which they were added, found by key in constant time however many there
/// are.
class Tree {
public:
    Tree();
    Tree(const Tree& other);
    Tree(Tree&&) noexcept;
    Tree& operator=(Tree&&) noexcept;
    ~Tree();
    /// A copy of `members` and of all below them.
    explicit Tree(std::span<const Member> members);

    bool operator==(const Tree& other) const { return _members == other._members; }

    std::span<const Member> getMembers() const { return _members; }
    const Value* find(std::string_view key) const;
    /// Adds a key that isn't there; `value` lies in the arena already, the key is stored.
    void append(std::string_view key, const Value& value);
    /// Changes the value of a key that is there.
    void replace(std::string_view key, const Value& value);
    void remove(std::string_view key);
    /// Takes over members that lie in the arena. Returns the first key that stands there twice, null when
    /// there is none.
    const std::string_view* assign(std::span<const Member> members);

    Arena& getArena() { return _arena; }
    const Arena& getArena() const { return _arena; }

private:
    std::size_t findPosition(std::string_view key) const;
    /// Counts what nobody needs any more, and copies the tree to a new arena when that is most of it.
    void noteWaste(const Value& value, std::size_t more);

    std::vector<Member> _members;
    /// Open addressing over positions + 1, 0 is free; empty while there are few members.
    std::vector<std::uint32_t> _index;
    Arena _arena;
    std::size_t _waste = 0;
};

/// The first key that stands twice in `members`, null when there is none.
const std::string_view* findDuplicate(std::span<const Member> members);

} // namespace PropertyTree
