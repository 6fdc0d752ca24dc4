#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <utility>
#include <variant>
#include <vector>

namespace XmlRpc {

/// A value of XML-RPC. It can be copied; one thread at a time.
///
/// A text may hold any bytes. One that XML can't hold (control characters, invalid UTF-8) travels as base64,
/// and getString() takes both.
class XmlRpcValue {
public:
    enum class Type { NIL, BOOLEAN, INT, DOUBLE, STRING, BASE64, DATE_TIME, ARRAY, STRUCT };
    using Array = std::vector<XmlRpcValue>;
    /// The members in the order in which they were added. No name stands there twice.
    using Struct = std::vector<std::pair<std::string, XmlRpcValue>>;

    static constexpr std::size_t MAX_TEXT_SIZE = std::size_t(16) << 20; ///< [bytes] of XML
    static constexpr std::size_t MAX_ELEMENTS = 500000;                 ///< of XML
    static constexpr unsigned MAX_DEPTH = 64;                           ///< of arrays and structs

    XmlRpcValue() = default; ///< nil
    explicit XmlRpcValue(bool value);
    explicit XmlRpcValue(int value);
    /// Is written as "i4" when it fits into 32 bits, otherwise as "i8".
    explicit XmlRpcValue(std::int64_t value);
    explicit XmlRpcValue(double value);
    explicit XmlRpcValue(std::string value);
    explicit XmlRpcValue(const char* value);
    explicit XmlRpcValue(Array value);
    explicit XmlRpcValue(Struct value);
    static XmlRpcValue makeBase64(std::string bytes);
    static XmlRpcValue makeDateTime(std::string text);

    /// Reads one "<value>...</value>".
    /// @throw std::invalid_argument with the reason, and the position where it is known
    static XmlRpcValue fromXml(std::string_view text);
    /// @throw std::invalid_argument when the value is nested deeper than MAX_DEPTH
    std::string toXml() const;

    Type getType() const { return _type; }
    bool operator==(const XmlRpcValue& other) const = default;

    // ---- Accessors. Each throws std::invalid_argument when the value is of another type.

    bool getBool() const;
    /// @throw std::invalid_argument also when the number doesn't fit
    int getInt() const;
    std::int64_t getI8() const;
    /// Takes integers too.
    double getDouble() const;
    /// The text of a string, the bytes of base64, the text of a date.
    const std::string& getString() const;
    const Array& getArray() const;
    const Struct& getStruct() const;
    /// The member `name` of a struct, null when it has none.
    const XmlRpcValue* find(std::string_view name) const;

    /// Adds to an array. A nil value becomes an array.
    void append(XmlRpcValue value);
    /// Adds a member or replaces it. A nil value becomes a struct.
    void set(std::string_view name, XmlRpcValue value);

private:
    template <class T>
    const T& expect(Type type, const char* name) const;

    Type _type = Type::NIL;
    std::variant<std::monostate, bool, std::int64_t, double, std::string, Array, Struct> _data;
};

} // namespace XmlRpc
