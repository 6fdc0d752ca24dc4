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

using PropertyTree::Array;
using PropertyTree::makeInteger;
using PropertyTree::Tree;
using PropertyTree::Value;

/// The tree; a Properties without one is empty.
struct Properties::Impl {
    Tree tree;

    /// What `properties` holds.
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
    static void put(Properties& properties, const std::string& key, Value value, Mode mode);
    template <class T>
    static bool convertTo(const Value& value, T& result);
    template <class T>
    static void get(const Properties& properties, const std::string& key, T& result);
    template <class T>
    static void get(const Properties& properties, const std::string& key, std::vector<T>& result);
};

namespace {

std::string validText(std::string_view text) {
    return StringHelper::isValidUtf8(text) ? std::string(text) : StringHelper::toValidUtf8(text);
}

// The value that stands for each type that can be set.

Value toValue(bool value) {
    return Value(value);
}
Value toValue(double value) {
    return Value(value);
}
Value toValue(const std::string& value) {
    return Value(validText(value));
}
Value toValue(const std::wstring& value) {
    return Value(StringHelper::toString(value));
}
template <class T>
requires std::is_integral_v<T> Value toValue(T value) {
    if constexpr (std::is_signed_v<T>)
        return makeInteger(static_cast<std::int64_t>(value));
    else
        return makeInteger(static_cast<std::uint64_t>(value));
}

// Conversions back; false when the value doesn't fit.

bool convert(const Value& value, bool& result) {
    const bool* data = std::get_if<bool>(&value.data);
    if (data != nullptr)
        result = *data;
    return data != nullptr;
}

bool convert(const Value& value, double& result) {
    constexpr std::int64_t EXACT = std::int64_t(1) << std::numeric_limits<double>::digits;
    if (const double* real = std::get_if<double>(&value.data)) {
        result = *real;
        return true;
    }
    if (const std::int64_t* integer = std::get_if<std::int64_t>(&value.data)) {
        result = static_cast<double>(*integer);
        if (*integer >= -EXACT && *integer <= EXACT)
            return true;
        // 2^63 is what the largest integers round to, and none of them.
        return result < 0x1p63 && static_cast<std::int64_t>(result) == *integer;
    }
    if (const std::uint64_t* natural = std::get_if<std::uint64_t>(&value.data)) {
        result = static_cast<double>(*natural);
        return result < 0x1p64 && static_cast<std::uint64_t>(result) == *natural;
    }
    return false;
}

template <class T>
requires std::is_integral_v<T>
bool convert(const Value& value, T& result) {
    if (const std::int64_t* integer = std::get_if<std::int64_t>(&value.data)) {
        result = static_cast<T>(*integer);
        return std::in_range<T>(*integer);
    }
    if (const std::uint64_t* natural = std::get_if<std::uint64_t>(&value.data)) {
        result = static_cast<T>(*natural);
        return std::in_range<T>(*natural);
    }
    if (const double* real = std::get_if<double>(&value.data)) {
        // Both bounds are powers of two or zero, so they are exact as reals.
        constexpr double LOWEST = static_cast<double>(std::numeric_limits<T>::min());
        constexpr double BEYOND = 2.0 * static_cast<double>(std::numeric_limits<T>::max() / 2 + 1);
        if (!(*real >= LOWEST && *real < BEYOND) || *real != std::trunc(*real))
            return false;
        result = static_cast<T>(*real);
        return true;
    }
    return false;
}

bool convert(const Value& value, std::string& result) {
    const std::string* text = std::get_if<std::string>(&value.data);
    if (text != nullptr)
        result = *text;
    return text != nullptr;
}

bool convert(const Value& value, std::wstring& result) {
    const std::string* text = std::get_if<std::string>(&value.data);
    if (text != nullptr)
        result = StringHelper::toWString(*text);
    return text != nullptr;
}

// Words for messages.

template <class T>
std::string describeType() {
    if constexpr (std::is_same_v<T, bool>)
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

std::string describeValue(const Value& value) {
    constexpr std::size_t MAX_SHOWN = 60;
    static constexpr const char* KINDS[] = {"null",          "a truth value", "an integer", "an integer",
                                            "a real number", "a text",        "an array",   "an object"};
    static_assert(std::size(KINDS) == std::variant_size_v<Value::Variant>);
    std::string text;
    if (const Array* array = std::get_if<Array>(&value.data))
        text = std::to_string(array->size()) + " elements";
    else if (const Tree* tree = std::get_if<Tree>(&value.data))
        text = std::to_string(tree->getMembers().size()) + " keys";
    else
        text = PropertyJson::write(value);
    if (text.size() > MAX_SHOWN)
        text = StringHelper::toValidUtf8(std::string_view(text).substr(0, MAX_SHOWN)) + " ...";
    return std::string(KINDS[value.data.index()]) + " (" + text + ")";
}

[[noreturn]] void raiseMissing(const std::string& key, const std::string& expected) {
    raise(InputError("The key \"" + key + "\" is missing, expected " + expected));
}

[[noreturn]] void raiseMismatch(const std::string& key, const Value& value, const std::string& expected) {
    raise(InputError("The key \"" + key + "\" holds " + describeValue(value) + ", expected " + expected));
}

} // namespace

void Properties::Impl::put(Properties& properties, const std::string& key, Value value, Mode mode) {
    if (!properties._impl)
        properties._impl = std::make_unique<Impl>();
    Tree& tree = properties._impl->tree;
    std::string validKey = validText(key);
    Value* present = tree.find(validKey);
    if (present == nullptr) {
        tree.append(std::move(validKey), std::move(value));
        return;
    }
    ORVEX_ASSERT_AS(mode != Mode::NEW, "mode != Mode::NEW || !hasName(key)",
                    "The key \"" + key + "\" is set already");
    if (mode == Mode::REPLACE)
        *present = std::move(value);
}

template <class T>
bool Properties::Impl::convertTo(const Value& value, T& result) {
    if constexpr (std::is_same_v<T, Properties>) {
        const Tree* tree = std::get_if<Tree>(&value.data);
        if (tree != nullptr)
            result = make(*tree);
        return tree != nullptr;
    } else {
        return convert(value, result);
    }
}

template <class T>
void Properties::Impl::get(const Properties& properties, const std::string& key, T& result) {
    const Value* value = treeOf(properties).find(key);
    if (value == nullptr) [[unlikely]]
        raiseMissing(key, describeType<T>());
    T converted{};
    if (!convertTo(*value, converted)) [[unlikely]]
        raiseMismatch(key, *value, describeType<T>());
    result = std::move(converted);
}

template <class T>
void Properties::Impl::get(const Properties& properties, const std::string& key, std::vector<T>& result) {
    const std::string expected = "an array, each element " + describeType<T>();
    const Value* value = treeOf(properties).find(key);
    if (value == nullptr)
        raiseMissing(key, expected);
    const Array* array = std::get_if<Array>(&value->data);
    if (array == nullptr)
        raiseMismatch(key, *value, expected);
    std::vector<T> converted;
    converted.reserve(array->size());
    for (const Value& element : *array) {
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

std::string Properties::toXml(const std::string& rootName) const {
    return PropertyXml::write(Impl::treeOf(*this), rootName);
}

Properties Properties::fromXml(std::string_view xml) {
    return Impl::make(PropertyXml::parse(xml));
}

void Properties::set(const std::string& key, bool value, Mode mode) {
    Impl::put(*this, key, toValue(value), mode);
}
void Properties::set(const std::string& key, int value, Mode mode) {
    Impl::put(*this, key, toValue(value), mode);
}
void Properties::set(const std::string& key, unsigned value, Mode mode) {
    Impl::put(*this, key, toValue(value), mode);
}
void Properties::set(const std::string& key, long value, Mode mode) {
    Impl::put(*this, key, toValue(value), mode);
}
void Properties::set(const std::string& key, unsigned long value, Mode mode) {
    Impl::put(*this, key, toValue(value), mode);
}
void Properties::set(const std::string& key, long long value, Mode mode) {
    Impl::put(*this, key, toValue(value), mode);
}
void Properties::set(const std::string& key, unsigned long long value, Mode mode) {
    Impl::put(*this, key, toValue(value), mode);
}
void Properties::set(const std::string& key, double value, Mode mode) {
    Impl::put(*this, key, toValue(value), mode);
}
void Properties::set(const std::string& key, const std::string& value, Mode mode) {
    Impl::put(*this, key, toValue(value), mode);
}
void Properties::set(const std::string& key, const std::wstring& value, Mode mode) {
    Impl::put(*this, key, toValue(value), mode);
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
    Impl::put(*this, key, Value(Impl::treeOf(value)), mode);
}

namespace {

template <class T>
Value toArray(const std::vector<T>& values) {
    Array array;
    array.reserve(values.size());
    for (const auto& value : values)
        array.push_back(toValue(static_cast<const T&>(value)));
    return Value(std::move(array));
}

} // namespace

void Properties::set(const std::string& key, const std::vector<bool>& value, Mode mode) {
    Impl::put(*this, key, toArray(value), mode);
}
void Properties::set(const std::string& key, const std::vector<int>& value, Mode mode) {
    Impl::put(*this, key, toArray(value), mode);
}
void Properties::set(const std::string& key, const std::vector<unsigned>& value, Mode mode) {
    Impl::put(*this, key, toArray(value), mode);
}
void Properties::set(const std::string& key, const std::vector<long long>& value, Mode mode) {
    Impl::put(*this, key, toArray(value), mode);
}
void Properties::set(const std::string& key, const std::vector<double>& value, Mode mode) {
    Impl::put(*this, key, toArray(value), mode);
}
void Properties::set(const std::string& key, const std::vector<std::string>& value, Mode mode) {
    Impl::put(*this, key, toArray(value), mode);
}
void Properties::set(const std::string& key, const std::vector<std::wstring>& value, Mode mode) {
    Impl::put(*this, key, toArray(value), mode);
}

void Properties::set(const std::string& key, const std::vector<Properties>& value, Mode mode) {
    Array array;
    array.reserve(value.size());
    for (const Properties& element : value)
        array.emplace_back(Impl::treeOf(element));
    Impl::put(*this, key, Value(std::move(array)), mode);
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
    for (const PropertyTree::Member& member : Impl::treeOf(*this).getMembers())
        names.push_back(member.key);
    return names;
}
