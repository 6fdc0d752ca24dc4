#include "xmlrpc/XmlText.h"

#include "platform/Base64Encoder.h"
#include "platform/StringHelper.h"

#include <pugixml.hpp>

#include <algorithm>
#include <charconv>
#include <limits>
#include <set>
#include <stdexcept>

namespace XmlRpc {

namespace {

using Type = XmlRpcValue::Type;

constexpr std::size_t SHOWN = 60; ///< characters of a foreign text in a message

/// Each array and each struct needs three elements around its values. The rest is for the message around
/// them.
constexpr std::size_t MAX_ELEMENT_DEPTH = 3 * XmlRpcValue::MAX_DEPTH + 8;

[[noreturn]] void fail(const std::string& reason) {
    throw std::invalid_argument("malformed XML-RPC: " + reason);
}

void checkDepth(unsigned depth) {
    if (depth > XmlRpcValue::MAX_DEPTH)
        fail("it is nested deeper than " + std::to_string(XmlRpcValue::MAX_DEPTH) + " levels");
}

std::string quote(std::string_view text) {
    return "\"" + StringHelper::toValidUtf8(text.substr(0, SHOWN)) + "\"";
}

/// Looks at a text before the parser does: it refuses what the parser would accept or skip.
class Scanner {
public:
    explicit Scanner(std::string_view text) : _text(text) {}

    void scan() {
        checkCharacters();
        while (_at < _text.size()) {
            if (_text[_at] == '<')
                scanMark();
            else if (_text[_at] == '&')
                scanEntity();
            else
                ++_at;
        }
    }

private:
    [[noreturn]] void failHere(const std::string& reason) const {
        fail(reason + " at byte " + std::to_string(_at));
    }

    void checkCharacters() {
        if (_text.size() > XmlRpcValue::MAX_TEXT_SIZE)
            fail("its " + std::to_string(_text.size()) + " bytes are more than the limit of " +
                 std::to_string(XmlRpcValue::MAX_TEXT_SIZE));
        if (!StringHelper::isValidUtf8(_text))
            fail("it isn't UTF-8");
        for (_at = 0; _at < _text.size(); ++_at)
            if (static_cast<unsigned char>(_text[_at]) < 0x20 && _text[_at] != '\t' && _text[_at] != '\n' &&
                _text[_at] != '\r')
                failHere("a control character");
        _at = 0;
    }

    bool startsWith(std::string_view mark) const { return _text.compare(_at, mark.size(), mark) == 0; }

    void skipBehind(std::string_view mark) {
        const std::size_t found = _text.find(mark, _at);
        if (found == std::string_view::npos)
            failHere("no \"" + std::string(mark) + "\" ends the part that begins");
        _at = found + mark.size();
    }

    void scanMark() {
        if (startsWith("<!--"))
            return skipBehind("-->");
        if (startsWith("<![CDATA["))
            return skipBehind("]]>");
        if (startsWith("<?"))
            return skipBehind("?>");
        if (startsWith("<!"))
            failHere("a document type isn't accepted:");
        if (startsWith("</")) {
            if (_depth == 0)
                failHere("an end without a beginning");
            --_depth;
            return skipBehind(">");
        }
        scanElement();
    }

    void scanElement() {
        if (++_elements > XmlRpcValue::MAX_ELEMENTS)
            failHere("more than " + std::to_string(XmlRpcValue::MAX_ELEMENTS) + " elements");
        if (++_depth > MAX_ELEMENT_DEPTH)
            failHere("nested too deep");
        char quotation = 0;
        for (; _at < _text.size(); ++_at) {
            const char c = _text[_at];
            if (quotation != 0)
                quotation = c == quotation ? '\0' : quotation;
            else if (c == '"' || c == '\'')
                quotation = c;
            else if (c == '>')
                break;
        }
        if (_at == _text.size())
            failHere("an element without an end");
        if (_text[_at - 1] == '/')
            --_depth;
        ++_at;
    }

    void scanEntity() {
        constexpr std::size_t LONGEST = 10; // "&#x10FFFF;"
        const std::string_view rest = _text.substr(_at, LONGEST);
        const std::size_t end = rest.find(';');
        if (end == std::string_view::npos)
            failHere("\"&\" without its end");
        const std::string_view name = rest.substr(1, end - 1);
        constexpr std::string_view NAMES[] = {"amp", "lt", "gt", "quot", "apos"};
        if (std::find(std::begin(NAMES), std::end(NAMES), name) == std::end(NAMES) && !isNumber(name))
            failHere("an unknown entity");
        _at += end + 1;
    }

    static bool isNumber(std::string_view name) {
        if (name.size() < 2 || name[0] != '#')
            return false;
        const bool hexadecimal = name[1] == 'x';
        const std::string_view digits = name.substr(hexadecimal ? 2 : 1);
        return !digits.empty() &&
               digits.find_first_not_of(hexadecimal ? "0123456789abcdefABCDEF" : "0123456789") == digits.npos;
    }

    std::string_view _text;
    std::size_t _at = 0;
    std::size_t _elements = 0;
    std::size_t _depth = 0;
};

pugi::xml_node firstElement(pugi::xml_node node) {
    return node.find_child([](pugi::xml_node child) { return child.type() == pugi::node_element; });
}

pugi::xml_node nextElement(pugi::xml_node node) {
    do
        node = node.next_sibling();
    while (node && node.type() != pugi::node_element);
    return node;
}

/// The name without the prefix of a namespace: extensions of XML-RPC have one.
std::string_view localName(pugi::xml_node node) {
    const std::string_view name = node.name();
    return name.substr(name.find(':') + 1);
}

template <class T>
T readNumber(const std::string& given, const char* kind) {
    std::string text = StringHelper::trim(given);
    if (text.size() > 1 && text[0] == '+' && text[1] != '-')
        text.erase(0, 1);
    T number{};
    const char* end = text.data() + text.size();
    const auto [stop, code] = std::from_chars(text.data(), end, number);
    if (code != std::errc() || stop != end)
        fail(quote(given) + " isn't a number of the kind \"" + kind + "\"");
    return number;
}

XmlRpcValue readBase64(std::string text) {
    text.erase(std::remove_if(text.begin(), text.end(),
                              [](char c) { return c == ' ' || c == '\t' || c == '\n' || c == '\r'; }),
               text.end());
    std::string reason;
    std::optional<std::string> bytes = Base64Encoder::decodeBytes(text, &reason);
    if (!bytes)
        fail(quote(text) + " isn't Base64: " + reason);
    return XmlRpcValue::makeBase64(std::move(*bytes));
}

XmlRpcValue readArray(pugi::xml_node node, unsigned depth) {
    XmlRpcValue::Array elements;
    for (pugi::xml_node child = firstElement(XmlText::onlyChild(node, "data")); child;
         child = nextElement(child))
        elements.push_back(XmlText::readValue(child, depth));
    return XmlRpcValue(std::move(elements));
}

XmlRpcValue readStruct(pugi::xml_node node, unsigned depth) {
    XmlRpcValue::Struct members;
    std::set<std::string_view> names;
    for (pugi::xml_node child = firstElement(node); child; child = nextElement(child)) {
        if (localName(child) != "member")
            fail("a struct has " + quote(child.name()) + " beside its members");
        const pugi::xml_node first = firstElement(child);
        const pugi::xml_node second = nextElement(first);
        const bool inOrder = localName(first) == "name";
        const pugi::xml_node name = inOrder ? first : second;
        if (localName(name) != "name" || !second || nextElement(second))
            fail("a member of a struct is one name and one value");
        std::string text = XmlText::textOf(name);
        members.emplace_back(std::move(text), XmlText::readValue(inOrder ? second : first, depth));
    }
    for (const auto& member : members)
        if (!names.insert(member.first).second)
            fail("the name " + quote(member.first) + " stands there twice");
    return XmlRpcValue(std::move(members));
}

XmlRpcValue readTyped(pugi::xml_node node, unsigned depth) {
    const std::string_view kind = localName(node);
    if (kind == "struct" || kind == "array") {
        checkDepth(depth + 1);
        return kind == "struct" ? readStruct(node, depth + 1) : readArray(node, depth + 1);
    }
    std::string text = XmlText::textOf(node);
    if (kind == "string")
        return XmlRpcValue(std::move(text));
    if (kind == "int" || kind == "i4")
        return XmlRpcValue(int(readNumber<std::int32_t>(text, "int")));
    if (kind == "i8" || kind == "i2" || kind == "i1")
        return XmlRpcValue(readNumber<std::int64_t>(text, "i8"));
    if (kind == "double" || kind == "float")
        return XmlRpcValue(readNumber<double>(text, "double"));
    if (kind == "boolean" && (text == "0" || text == "1"))
        return XmlRpcValue(text == "1");
    if (kind == "nil" && text.empty())
        return XmlRpcValue();
    if (kind == "base64")
        return readBase64(std::move(text));
    if (kind == "dateTime.iso8601")
        return XmlRpcValue::makeDateTime(std::move(text));
    fail("a value of the kind " + quote(kind) + " with the text " + quote(text) + " isn't known");
}

void appendElement(const char* name, std::string_view content, std::string& text) {
    text.append("<").append(name).append(">").append(content).append("</").append(name).append(">");
}

void appendText(std::string_view content, std::string& text) {
    if (!XmlText::fits(content))
        return appendElement("base64", Base64Encoder::encode(content), text);
    text += "<string>";
    XmlText::appendEscaped(content, text);
    text += "</string>";
}

/// In plain decimals: many clients refuse exponents.
void appendDouble(double value, std::string& text) {
    char digits[400];
    const char* end = std::to_chars(digits, std::end(digits), value, std::chars_format::fixed).ptr;
    appendElement("double", {digits, static_cast<std::size_t>(end - digits)}, text);
}

void appendInteger(std::int64_t value, std::string& text) {
    const bool small = value >= std::numeric_limits<std::int32_t>::min() &&
                       value <= std::numeric_limits<std::int32_t>::max();
    appendElement(small ? "i4" : "i8", std::to_string(value), text);
}

void appendArray(const XmlRpcValue::Array& elements, std::string& text, unsigned depth) {
    checkDepth(depth);
    text += "<array><data>";
    for (const XmlRpcValue& element : elements)
        XmlText::append(element, text, depth);
    text += "</data></array>";
}

void appendStruct(const XmlRpcValue::Struct& members, std::string& text, unsigned depth) {
    checkDepth(depth);
    text += "<struct>";
    for (const auto& [name, value] : members) {
        if (!XmlText::fits(name))
            fail("the name " + quote(name) + " can't be written");
        text += "<member><name>";
        XmlText::appendEscaped(name, text);
        text += "</name>";
        XmlText::append(value, text, depth);
        text += "</member>";
    }
    text += "</struct>";
}

} // namespace

XmlText::XmlText(std::string_view text) : _document(std::make_unique<pugi::xml_document>()) {
    Scanner(text).scan();
    constexpr unsigned FLAGS =
        pugi::parse_escapes | pugi::parse_cdata | pugi::parse_eol | pugi::parse_ws_pcdata;
    const pugi::xml_parse_result result =
        _document->load_buffer(text.data(), text.size(), FLAGS, pugi::encoding_utf8);
    if (!result)
        fail(std::string(result.description()) + " at byte " + std::to_string(result.offset));
    if (nextElement(firstElement(*_document)))
        fail("it has more than one root element");
}

XmlText::~XmlText() = default;

pugi::xml_node XmlText::getRoot() const {
    return firstElement(*_document);
}

XmlRpcValue XmlText::readValue() const {
    return readValue(getRoot());
}

XmlRpcValue XmlText::readValue(pugi::xml_node node, unsigned depth) {
    if (localName(node) != "value")
        fail("the element " + quote(node.name()) + " stands where a value was expected");
    const pugi::xml_node typed = firstElement(node);
    if (!typed)
        return XmlRpcValue(textOf(node));
    if (nextElement(typed))
        fail("a value has two types");
    return readTyped(typed, depth);
}

pugi::xml_node XmlText::onlyChild(pugi::xml_node node, const char* name) {
    const pugi::xml_node child = firstElement(node);
    if (localName(child) != name || nextElement(child))
        fail("the element " + quote(node.name()) + " needs one element \"" + name + "\"");
    return child;
}

std::string XmlText::textOf(pugi::xml_node node) {
    std::string text;
    for (const pugi::xml_node child : node.children()) {
        if (child.type() == pugi::node_element)
            fail("the element " + quote(child.name()) + " stands where a text was expected");
        text += child.value();
    }
    if (!fits(text))
        fail("the text " + quote(text) + " has characters that XML doesn't allow");
    return text;
}

void XmlText::append(const XmlRpcValue& value, std::string& text, unsigned depth) {
    text += "<value>";
    switch (value.getType()) {
    case Type::NIL:
        text += "<nil/>";
        break;
    case Type::BOOLEAN:
        appendElement("boolean", value.getBool() ? "1" : "0", text);
        break;
    case Type::INT:
        appendInteger(value.getI8(), text);
        break;
    case Type::DOUBLE:
        appendDouble(value.getDouble(), text);
        break;
    case Type::STRING:
        appendText(value.getString(), text);
        break;
    case Type::BASE64:
        appendElement("base64", Base64Encoder::encode(value.getString()), text);
        break;
    case Type::DATE_TIME:
        text += "<dateTime.iso8601>";
        appendEscaped(value.getString(), text);
        text += "</dateTime.iso8601>";
        break;
    case Type::ARRAY:
        appendArray(value.getArray(), text, depth + 1);
        break;
    case Type::STRUCT:
        appendStruct(value.getStruct(), text, depth + 1);
        break;
    }
    text += "</value>";
}

void XmlText::appendEscaped(std::string_view plain, std::string& text) {
    for (const char c : plain)
        switch (c) {
        case '&':
            text += "&amp;";
            break;
        case '<':
            text += "&lt;";
            break;
        case '>':
            text += "&gt;";
            break;
        case '\r':
            text += "&#13;";
            break;
        default:
            text += c;
        }
}

bool XmlText::fits(std::string_view text) {
    return StringHelper::isValidUtf8(text) && text.find("\xEF\xBF\xBE") == text.npos &&
           text.find("\xEF\xBF\xBF") == text.npos && std::all_of(text.begin(), text.end(), [](char c) {
               return static_cast<unsigned char>(c) >= 0x20 || c == '\t' || c == '\n' || c == '\r';
           });
}

} // namespace XmlRpc
