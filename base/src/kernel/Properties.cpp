#include "kernel/Properties.h"

#include "kernel/PropertyJson.h"
#include "kernel/PropertyTree.h"
#include "kernel/PropertyXml.h"
#include "kernel/Raise.h"
#include "platform/StringHelper.h"

#include <cmath>
#include <limits>
#include <type_traits>
#include <utility>

using PropertyTree::Arena;
using PropertyTree::Kind;
using PropertyTree::Member;
using PropertyTree::Tree;
using PropertyTree::Value;

/// The tree; a Properties without one is empty.
struct Properties::Impl {
    Tree tree;

    /// The data of `properties`.
    static const Tree& treeOf(const Properties& properties) {
        static const Tree empty;
        return properties._impl ? properties._impl->tree : empty;
    }
    static Properties make(Tree tree) {
        Properties result;
        if (!tree.getMembers().empty())
            result._impl = std::make_unique<Impl>(Impl{std::move(tree)});
        return result;
    }
    /// Sets `key` to what `makeValue` makes in the arena that it is given.
    template <class MakeValue>
    static void put(Properties& properties, const std::string& key, Mode mode, const MakeValue& makeValue);
    template <class T>
    static void put(Properties& properties, const std::string& key, Mode mode, const std::vector<T>& values);
    template <class T>
    static bool convertTo(const Value& value, T& result);
    /// Copies the value of `key` into `result`; an InputError when it is of another type.
    template <class T>
    static void read(const std::string& key, const Value& value, T& result);
    template <class T>
    static void read(const std::string& key, const Value& value, std::vector<T>& result);
    template <class T>
    static void get(const Properties& properties, const std::string& key, T& result);
};

namespace {

Value storeText(Arena& arena, std::string_view text) {
    if (StringHelper::isValidUtf8(text))
        return Value::text(arena.store(text));
    return Value::text(arena.store(StringHelper::toValidUtf8(text)));
}

// The value that stands for each type that can be set, stored in the arena where it needs room.

Value toValue(Arena&, bool value) {
    return Value::boolean(value);
}
Value toValue(Arena&, double value) {
    return Value::real(value);
}
Value toValue(Arena& arena, const std::string& value) {
    return storeText(arena, value);
}
Value toValue(Arena& arena, const std::wstring& value) {
    return storeText(arena, StringHelper::toString(value));
}
template <class T>
requires std::is_integral_v<T> Value toValue(Arena&, T value) {
    if constexpr (std::is_signed_v<T>)
        return Value::integer(value);
    else
        return Value::natural(value);
}

// Conversions back; false when the value doesn't fit.

bool convert(const Value& value, bool& result) {
    result = value.getBool();
    return value.getKind() == Kind::BOOL;
}

bool convert(const Value& value, double& result) {
    if (value.getKind() == Kind::REAL) {
        result = value.getReal();
        return true;
    }
    // 2^63 and 2^64 are what the largest integers round to, and none of them.
    if (value.getKind() == Kind::INTEGER) {
        result = static_cast<double>(value.getInteger());
        return result < 0x1p63 && static_cast<std::int64_t>(result) == value.getInteger();
    }
    if (value.getKind() == Kind::NATURAL) {
        result = static_cast<double>(value.getNatural());
        return result < 0x1p64 && static_cast<std::uint64_t>(result) == value.getNatural();
    }
    return false;
}

template <class T>
requires std::is_integral_v<T>
bool convert(const Value& value, T& result) {
    if (value.getKind() == Kind::INTEGER) {
        result = static_cast<T>(value.getInteger());
        return std::in_range<T>(value.getInteger());
    }
    if (value.getKind() == Kind::NATURAL) {
        result = static_cast<T>(value.getNatural());
        return std::in_range<T>(value.getNatural());
    }
    if (value.getKind() == Kind::REAL) {
        // Both bounds are powers of two or zero, so they are exact as reals.
        constexpr double LOWEST = static_cast<double>(std::numeric_limits<T>::min());
        constexpr T HALF = std::numeric_limits<T>::max() / 2 + 1;
        constexpr double BEYOND = 2.0 * static_cast<double>(HALF);
        const double real = value.getReal();
        if (!(real >= LOWEST && real < BEYOND) || real != std::trunc(real))
            return false;
        result = static_cast<T>(real);
        return true;
    }
    return false;
}

bool convert(const Value& value, std::string& result) {
    if (value.getKind() != Kind::TEXT)
        return false;
    result = value.getText();
    return true;
}

bool convert(const Value& value, std::wstring& result) {
    if (value.getKind() != Kind::TEXT)
        return false;
    result = StringHelper::toWString(value.getText());
    return true;
}

// Words for messages.

template <class T>
constexpr bool IS_VECTOR = false;
template <class T>
constexpr bool IS_VECTOR<std::vector<T>> = true;

template <class T>
std::string describeType() {
    if constexpr (IS_VECTOR<T>)
        return "an array, each element " + describeType<typename T::value_type>();
    else if constexpr (std::is_same_v<T, bool>)
        return "true or false";
    else if constexpr (std::is_same_v<T, double>)
        return "a real number";
    else if constexpr (std::is_integral_v<T>)
        return "an integer from " + std::to_string(std::numeric_limits<T>::min()) + " to " +
               std::to_string(std::numeric_limits<T>::max());
    else if constexpr (std::is_same_v<T, Properties>)
        return "an object";
    else
        return "a text";
}

const char* describeKind(Kind kind) {
    switch (kind) {
    case Kind::NOTHING:
        return "null";
    case Kind::BOOL:
        return "a truth value";
    case Kind::INTEGER:
    case Kind::NATURAL:
        return "an integer";
    case Kind::REAL:
        return "a real number";
    case Kind::TEXT:
        return "a text";
    case Kind::ARRAY:
        return "an array";
    case Kind::OBJECT:
        return "an object";
    }
    return "";
}

std::string describeValue(const Value& value) {
    constexpr std::size_t MAX_SHOWN = 60;
    std::string text;
    if (value.getKind() == Kind::ARRAY)
        text = std::to_string(value.getElements().size()) + " elements";
    else if (value.getKind() == Kind::OBJECT)
        text = std::to_string(value.getMembers().size()) + " keys";
    else if (value.getKind() == Kind::TEXT)
        text = PropertyJson::write(Value::text(value.getText().substr(0, MAX_SHOWN)));
    else
        text = PropertyJson::write(value);
    if (value.getKind() == Kind::TEXT && value.getText().size() > MAX_SHOWN)
        text = StringHelper::toValidUtf8(text) + " ...";
    return std::string(describeKind(value.getKind())) + " (" + text + ")";
}

[[noreturn]] void raiseMissing(const std::string& key, const std::string& expected) {
    raise(InputError("The key \"" + key + "\" is missing, expected " + expected));
}

[[noreturn]] void raiseMismatch(const std::string& key, const Value& value, const std::string& expected) {
    raise(InputError("The key \"" + key + "\" holds " + describeValue(value) + ", expected " + expected));
}

} // namespace

template <class MakeValue>
void Properties::Impl::put(Properties& properties, const std::string& key, Mode mode,
                           const MakeValue& makeValue) {
    if (!properties._impl)
        properties._impl = std::make_unique<Impl>();
    Tree& tree = properties._impl->tree;
    const bool isPresent = tree.find(key) != nullptr;
    ORVEX_ASSERT_AS(!isPresent || mode != Mode::NEW, "mode != Mode::NEW || !hasName(key)",
                    "The key \"" + key + "\" is set already");
    if (!isPresent && !StringHelper::isValidUtf8(key))
        put(properties, StringHelper::toValidUtf8(key), mode, makeValue);
    else if (!isPresent)
        tree.append(key, makeValue(tree.getArena()));
    else if (mode == Mode::REPLACE)
        tree.replace(key, makeValue(tree.getArena()));
}

template <class T>
void Properties::Impl::put(Properties& properties, const std::string& key, Mode mode,
                           const std::vector<T>& values) {
    put(properties, key, mode, [&](Arena& arena) {
        std::vector<Value> elements;
        elements.reserve(values.size());
        for (const auto& value : values)
            elements.push_back(toValue(arena, static_cast<const T&>(value)));
        return Value::array(arena.store(elements));
    });
}

template <class T>
bool Properties::Impl::convertTo(const Value& value, T& result) {
    if constexpr (std::is_same_v<T, Properties>) {
        if (value.getKind() != Kind::OBJECT)
            return false;
        result = make(Tree(value.getMembers()));
        return true;
    } else {
        return convert(value, result);
    }
}

template <class T>
void Properties::Impl::get(const Properties& properties, const std::string& key, T& result) {
    const Value* value = treeOf(properties).find(key);
    if (value == nullptr) [[unlikely]]
        raiseMissing(key, describeType<T>());
    read(key, *value, result);
}

template <class T>
void Properties::Impl::read(const std::string& key, const Value& value, T& result) {
    T converted{};
    if (!convertTo(value, converted)) [[unlikely]]
        raiseMismatch(key, value, describeType<T>());
    result = std::move(converted);
}

template <class T>
void Properties::Impl::read(const std::string& key, const Value& value, std::vector<T>& result) {
    if (value.getKind() != Kind::ARRAY)
        raiseMismatch(key, value, describeType<std::vector<T>>());
    std::vector<T> converted;
    converted.reserve(value.getElements().size());
    for (const Value& element : value.getElements()) {
        T item{};
        if (!convertTo(element, item))
            raiseMismatch(key + "[" + std::to_string(converted.size()) + "]", element, describeType<T>());
        converted.push_back(std::move(item));
    }
    result = std::move(converted);
}

Properties::Properties() = default;
Properties::Properties(std::string_view text) : Properties(Impl::make(PropertyJson::parse(text))) {}
Properties::Properties(const Properties& other)
    : _impl(other._impl ? std::make_unique<Impl>(*other._impl) : nullptr) {}
Properties::Properties(Properties&&) noexcept = default;
Properties& Properties::operator=(Properties&&) noexcept = default;
Properties::~Properties() = default;

Properties& Properties::operator=(const Properties& other) {
    if (this != &other)
        *this = Properties(other);
    return *this;
}

bool Properties::operator==(const Properties& other) const {
    return Impl::treeOf(*this) == Impl::treeOf(other);
}

std::string Properties::toString() const {
    return PropertyJson::write(Impl::treeOf(*this), PropertyJson::Style::ONE_LINE);
}

std::string Properties::toPrettyString() const {
    return PropertyJson::write(Impl::treeOf(*this), PropertyJson::Style::INDENTED);
}

std::string Properties::toXml() const {
    return PropertyXml::write(Impl::treeOf(*this));
}

Properties Properties::fromXml(std::string_view xml) {
    return Impl::make(PropertyXml::parse(xml));
}

void Properties::set(const std::string& key, bool value, Mode mode) {
    Impl::put(*this, key, mode, [&](Arena& arena) { return toValue(arena, value); });
}
void Properties::set(const std::string& key, int value, Mode mode) {
    Impl::put(*this, key, mode, [&](Arena& arena) { return toValue(arena, value); });
}
void Properties::set(const std::string& key, unsigned value, Mode mode) {
    Impl::put(*this, key, mode, [&](Arena& arena) { return toValue(arena, value); });
}
void Properties::set(const std::string& key, long value, Mode mode) {
    Impl::put(*this, key, mode, [&](Arena& arena) { return toValue(arena, value); });
}
void Properties::set(const std::string& key, unsigned long value, Mode mode) {
    Impl::put(*this, key, mode, [&](Arena& arena) { return toValue(arena, value); });
}
void Properties::set(const std::string& key, long long value, Mode mode) {
    Impl::put(*this, key, mode, [&](Arena& arena) { return toValue(arena, value); });
}
void Properties::set(const std::string& key, unsigned long long value, Mode mode) {
    Impl::put(*this, key, mode, [&](Arena& arena) { return toValue(arena, value); });
}
void Properties::set(const std::string& key, double value, Mode mode) {
    Impl::put(*this, key, mode, [&](Arena& arena) { return toValue(arena, value); });
}
void Properties::set(const std::string& key, const std::string& value, Mode mode) {
    Impl::put(*this, key, mode, [&](Arena& arena) { return toValue(arena, value); });
}
void Properties::set(const std::string& key, const std::wstring& value, Mode mode) {
    Impl::put(*this, key, mode, [&](Arena& arena) { return toValue(arena, value); });
}

void Properties::set(const std::string& key, const char* value, Mode mode) {
    ORVEX_ASSERT_AS(value != nullptr, "value != nullptr", "No text for the key \"" + key + "\"");
    set(key, std::string(value), mode);
}

void Properties::set(const std::string& key, const wchar_t* value, Mode mode) {
    ORVEX_ASSERT_AS(value != nullptr, "value != nullptr", "No text for the key \"" + key + "\"");
    set(key, std::wstring(value), mode);
}

void Properties::set(const std::string& key, const Properties& value, Mode mode) {
    Impl::put(*this, key, mode,
              [&](Arena& arena) { return arena.copy(Value::object(Impl::treeOf(value).getMembers())); });
}

void Properties::set(const std::string& key, const std::vector<bool>& value, Mode mode) {
    Impl::put(*this, key, mode, value);
}
void Properties::set(const std::string& key, const std::vector<int>& value, Mode mode) {
    Impl::put(*this, key, mode, value);
}
void Properties::set(const std::string& key, const std::vector<unsigned>& value, Mode mode) {
    Impl::put(*this, key, mode, value);
}
void Properties::set(const std::string& key, const std::vector<long long>& value, Mode mode) {
    Impl::put(*this, key, mode, value);
}
void Properties::set(const std::string& key, const std::vector<double>& value, Mode mode) {
    Impl::put(*this, key, mode, value);
}
void Properties::set(const std::string& key, const std::vector<std::string>& value, Mode mode) {
    Impl::put(*this, key, mode, value);
}
void Properties::set(const std::string& key, const std::vector<std::wstring>& value, Mode mode) {
    Impl::put(*this, key, mode, value);
}

void Properties::set(const std::string& key, const std::vector<Properties>& value, Mode mode) {
    Impl::put(*this, key, mode, [&](Arena& arena) {
        std::vector<Value> elements;
        elements.reserve(value.size());
        for (const Properties& element : value)
            elements.push_back(arena.copy(Value::object(Impl::treeOf(element).getMembers())));
        return Value::array(arena.store(elements));
    });
}

void Properties::get(const std::string& key, bool& value) const {
    Impl::get(*this, key, value);
}
void Properties::get(const std::string& key, int& value) const {
    Impl::get(*this, key, value);
}
void Properties::get(const std::string& key, unsigned& value) const {
    Impl::get(*this, key, value);
}
void Properties::get(const std::string& key, long long& value) const {
    Impl::get(*this, key, value);
}
void Properties::get(const std::string& key, double& value) const {
    Impl::get(*this, key, value);
}
void Properties::get(const std::string& key, std::string& value) const {
    Impl::get(*this, key, value);
}
void Properties::get(const std::string& key, std::wstring& value) const {
    Impl::get(*this, key, value);
}
void Properties::get(const std::string& key, Properties& value) const {
    Impl::get(*this, key, value);
}
void Properties::get(const std::string& key, std::vector<bool>& value) const {
    Impl::get(*this, key, value);
}
void Properties::get(const std::string& key, std::vector<int>& value) const {
    Impl::get(*this, key, value);
}
void Properties::get(const std::string& key, std::vector<unsigned>& value) const {
    Impl::get(*this, key, value);
}
void Properties::get(const std::string& key, std::vector<long long>& value) const {
    Impl::get(*this, key, value);
}
void Properties::get(const std::string& key, std::vector<double>& value) const {
    Impl::get(*this, key, value);
}
void Properties::get(const std::string& key, std::vector<std::string>& value) const {
    Impl::get(*this, key, value);
}
void Properties::get(const std::string& key, std::vector<std::wstring>& value) const {
    Impl::get(*this, key, value);
}
void Properties::get(const std::string& key, std::vector<Properties>& value) const {
    Impl::get(*this, key, value);
}

std::string Properties::getString(const std::string& key) const {
    std::string value{};
    Impl::get(*this, key, value);
    return value;
}

std::wstring Properties::getOrvexString(const std::string& key) const {
    std::wstring value{};
    Impl::get(*this, key, value);
    return value;
}

int Properties::getInt(const std::string& key) const {
    int value{};
    Impl::get(*this, key, value);
    return value;
}

unsigned Properties::getUnsignedInt(const std::string& key) const {
    unsigned value{};
    Impl::get(*this, key, value);
    return value;
}

long long Properties::getLong(const std::string& key) const {
    long long value{};
    Impl::get(*this, key, value);
    return value;
}

unsigned long long Properties::getUnsignedLong(const std::string& key) const {
    unsigned long long value{};
    Impl::get(*this, key, value);
    return value;
}

double Properties::getReal(const std::string& key) const {
    double value{};
    Impl::get(*this, key, value);
    return value;
}

bool Properties::getBool(const std::string& key) const {
    bool value{};
    Impl::get(*this, key, value);
    return value;
}

Properties Properties::getProperties(const std::string& key) const {
    Properties value{};
    Impl::get(*this, key, value);
    return value;
}

template <class T>
T Properties::getOr(const std::string& key, T otherwise) const {
    if (const Value* value = Impl::treeOf(*this).find(key))
        Impl::read(key, *value, otherwise);
    return otherwise;
}

std::string Properties::getOr(const std::string& key, const char* otherwise) const {
    return getOr(key, std::string(otherwise));
}

template bool Properties::getOr(const std::string&, bool) const;
template int Properties::getOr(const std::string&, int) const;
template unsigned Properties::getOr(const std::string&, unsigned) const;
template long long Properties::getOr(const std::string&, long long) const;
template unsigned long long Properties::getOr(const std::string&, unsigned long long) const;
template double Properties::getOr(const std::string&, double) const;
template std::string Properties::getOr(const std::string&, std::string) const;
template std::wstring Properties::getOr(const std::string&, std::wstring) const;
template Properties Properties::getOr(const std::string&, Properties) const;
template std::vector<bool> Properties::getOr(const std::string&, std::vector<bool>) const;
template std::vector<int> Properties::getOr(const std::string&, std::vector<int>) const;
template std::vector<unsigned> Properties::getOr(const std::string&, std::vector<unsigned>) const;
template std::vector<long long> Properties::getOr(const std::string&, std::vector<long long>) const;
template std::vector<double> Properties::getOr(const std::string&, std::vector<double>) const;
template std::vector<std::string> Properties::getOr(const std::string&, std::vector<std::string>) const;
template std::vector<std::wstring> Properties::getOr(const std::string&, std::vector<std::wstring>) const;
template std::vector<Properties> Properties::getOr(const std::string&, std::vector<Properties>) const;

void Properties::merge(const Properties& other, Mode mode) {
    for (const Member& member : Impl::treeOf(other).getMembers())
        Impl::put(*this, std::string(member.key), mode,
                  [&](Arena& arena) { return arena.copy(member.value); });
}

bool Properties::hasName(const std::string& key) const {
    return Impl::treeOf(*this).find(key) != nullptr;
}

void Properties::remove(const std::string& key) {
    if (_impl)
        _impl->tree.remove(key);
}

void Properties::clear() {
    _impl.reset();
}

bool Properties::empty() const {
    return size() == 0;
}

std::size_t Properties::size() const {
    return Impl::treeOf(*this).getMembers().size();
}

std::vector<std::string> Properties::getNames() const {
    std::vector<std::string> names;
    names.reserve(size());
    for (const Member& member : Impl::treeOf(*this).getMembers())
        names.emplace_back(member.key);
    return names;
}
