#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <utility>
#include <variant>
#include <vector>

/// What a Properties holds: keys in their order, each with a value. Private to the kernel.
namespace PropertyTree {

struct Member;
struct Value;

/// Members in the order in which they were added, found by key in constant time however many there are.
class Tree {
public:
    Tree();
    Tree(const Tree&);
    Tree(Tree&&) noexcept;
    Tree& operator=(const Tree&);
    Tree& operator=(Tree&&) noexcept;
    ~Tree();

    bool operator==(const Tree& other) const;

    const std::vector<Member>& getMembers() const { return _members; }
    Value* find(std::string_view key);
    const Value* find(std::string_view key) const;
    /// Adds a key that isn't there.
    void append(std::string key, Value value);
    void remove(std::string_view key);
    /// Takes over `members`. Returns the first key that stands there twice, null when there is none.
    const std::string* assign(std::vector<Member> members);

private:
    static constexpr std::size_t NOT_FOUND = static_cast<std::size_t>(-1);
    /// Up to here looking at each key is the faster way.
    static constexpr std::size_t MAX_UNINDEXED = 12;

    std::size_t findPosition(std::string_view key) const;
    /// Returns the first member whose key stands before it as well, null when there is none.
    const Member* buildIndex();

    std::vector<Member> _members;
    /// Open addressing over positions + 1, 0 is free; empty while there are few members.
    std::vector<std::uint32_t> _index;
};

using Array = std::vector<Value>;

/// A value of one of JSON's kinds. An integer that fits is an int64, whatever type it was set with.
struct Value {
    using Variant =
        std::variant<std::monostate, bool, std::int64_t, std::uint64_t, double, std::string, Array, Tree>;

    Value() = default;
    template <class T>
    explicit Value(T value) : data(std::move(value)) {}

    /// NaN equals NaN, so that a tree equals its copy.
    bool operator==(const Value& other) const;

    Variant data;
};

struct Member {
    std::string key;
    Value value;

    bool operator==(const Member& other) const { return key == other.key && value == other.value; }
};

/// The integer in its one form.
inline Value makeInteger(std::int64_t value) {
    return Value(value);
}
inline Value makeInteger(std::uint64_t value) {
    return value <= static_cast<std::uint64_t>(INT64_MAX) ? Value(static_cast<std::int64_t>(value))
                                                          : Value(value);
}

} // namespace PropertyTree
