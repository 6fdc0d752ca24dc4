#include "xmlrpc/XmlRpcValue.h"

#include "xmlrpc/XmlText.h"

#include <algorithm>
#include <limits>
#include <stdexcept>

namespace XmlRpc {

XmlRpcValue::XmlRpcValue(bool value) : _type(Type::BOOLEAN), _data(value) {}
XmlRpcValue::XmlRpcValue(int value) : _type(Type::INT), _data(std::int64_t(value)) {}
XmlRpcValue::XmlRpcValue(std::int64_t value) : _type(Type::INT), _data(value) {}
XmlRpcValue::XmlRpcValue(double value) : _type(Type::DOUBLE), _data(value) {}
XmlRpcValue::XmlRpcValue(std::string value) : _type(Type::STRING), _data(std::move(value)) {}
XmlRpcValue::XmlRpcValue(const char* value) : _type(Type::STRING), _data(std::string(value)) {}
XmlRpcValue::XmlRpcValue(Array value) : _type(Type::ARRAY), _data(std::move(value)) {}
XmlRpcValue::XmlRpcValue(Struct value) : _type(Type::STRUCT), _data(std::move(value)) {}

XmlRpcValue XmlRpcValue::makeBase64(std::string bytes) {
    XmlRpcValue value(std::move(bytes));
    value._type = Type::BASE64;
    return value;
}

XmlRpcValue XmlRpcValue::makeDateTime(std::string text) {
    XmlRpcValue value(std::move(text));
    value._type = Type::DATE_TIME;
    return value;
}

XmlRpcValue XmlRpcValue::fromXml(std::string_view text) {
    return XmlText(text).readValue();
}

std::string XmlRpcValue::toXml() const {
    std::string text;
    XmlText::append(*this, text);
    return text;
}

template <class T>
const T& XmlRpcValue::expect(Type type, const char* name) const {
    if (_type != type)
        throw std::invalid_argument(std::string("the XML-RPC value isn't ") + name);
    return *std::get_if<T>(&_data);
}

bool XmlRpcValue::getBool() const {
    return expect<bool>(Type::BOOLEAN, "a boolean");
}

int XmlRpcValue::getInt() const {
    const std::int64_t value = getI8();
    if (value < std::numeric_limits<int>::min() || value > std::numeric_limits<int>::max())
        throw std::invalid_argument("the XML-RPC value " + std::to_string(value) + " has more than 32 bits");
    return static_cast<int>(value);
}

std::int64_t XmlRpcValue::getI8() const {
    return expect<std::int64_t>(Type::INT, "an integer");
}

double XmlRpcValue::getDouble() const {
    return _type == Type::INT ? static_cast<double>(getI8()) : expect<double>(Type::DOUBLE, "a number");
}

const std::string& XmlRpcValue::getString() const {
    if (const std::string* text = std::get_if<std::string>(&_data))
        return *text;
    throw std::invalid_argument("the XML-RPC value isn't a string");
}

const XmlRpcValue::Array& XmlRpcValue::getArray() const {
    return expect<Array>(Type::ARRAY, "an array");
}

const XmlRpcValue::Struct& XmlRpcValue::getStruct() const {
    return expect<Struct>(Type::STRUCT, "a struct");
}

const XmlRpcValue* XmlRpcValue::find(std::string_view name) const {
    const Struct& members = getStruct();
    const auto found = std::find_if(members.begin(), members.end(), [name](const Struct::value_type& member) {
        return member.first == name;
    });
    return found == members.end() ? nullptr : &found->second;
}

void XmlRpcValue::append(XmlRpcValue value) {
    if (_type == Type::NIL)
        *this = XmlRpcValue(Array());
    getArray(); // throws when this is something else
    std::get_if<Array>(&_data)->push_back(std::move(value));
}

void XmlRpcValue::set(std::string_view name, XmlRpcValue value) {
    if (_type == Type::NIL)
        *this = XmlRpcValue(Struct());
    if (const XmlRpcValue* present = find(name))
        *const_cast<XmlRpcValue*>(present) =
            std::move(value); // a member of this object, which isn't constant
    else
        std::get_if<Struct>(&_data)->emplace_back(name, std::move(value));
}

} // namespace XmlRpc
