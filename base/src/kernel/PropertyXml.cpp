#include "kernel/PropertyXml.h"

#include "kernel/Properties.h"
#include "kernel/Raise.h"
#include "platform/Base64Encoder.h"
#include "platform/StringHelper.h"

#include <pugixml.hpp>

#include <algorithm>
#include <charconv>
#include <cmath>
#include <cstdint>
#include <optional>
#include <span>
#include <utility>
#include <vector>

namespace PropertyXml {

using PropertyTree::Arena;
using PropertyTree::Kind;
using PropertyTree::Member;
using PropertyTree::Tree;
using PropertyTree::Value;

namespace {

[[noreturn]] void raiseMalformed(const std::string& reason) {
    raise(InputError("Malformed XML: " + reason));
}

constexpr std::string_view REAL_MARK = "$real:";
constexpr std::string_view NATURAL_MARK = "$natural:";
constexpr std::string_view NAME_MARK = "$base64:";
constexpr std::string_view BEGIN = "<value>";

void checkDepth(unsigned depth) {
    ORVEX_ASSERT(depth <= Properties::MAX_DEPTH, "A Properties is nested too deep to be written");
}

/// Control characters have no place in XML; a carriage return would come back as a line feed elsewhere.
bool fitsXml(std::string_view text) {
    return text.find("\xEF\xBF\xBE") == text.npos && text.find("\xEF\xBF\xBF") == text.npos &&
           std::all_of(text.begin(), text.end(), [](char c) {
               return static_cast<unsigned char>(c) >= 0x20 || c == '\t' || c == '\n';
           });
}

void setText(pugi::xml_node node, std::string_view text) {
    node.text().set(std::string(text).c_str());
}

void writeMarked(std::string_view mark, std::string_view text, pugi::xml_node parent) {
    setText(parent.append_child("string"), std::string(mark).append(text));
}

void writeInteger(std::int64_t value, pugi::xml_node parent) {
    const bool small = value >= INT32_MIN && value <= INT32_MAX;
    setText(parent.append_child(small ? "i4" : "i8"), std::to_string(value));
}

/// In plain decimals: many clients refuse exponents.
void writeReal(double value, pugi::xml_node parent) {
    if (!std::isfinite(value))
        return writeMarked(REAL_MARK, std::isnan(value) ? "nan" : value > 0 ? "inf" : "-inf", parent);
    char text[400];
    const char* end = std::to_chars(text, std::end(text), value, std::chars_format::fixed).ptr;
    setText(parent.append_child("double"), {text, static_cast<std::size_t>(end - text)});
}

void writeText(std::string_view text, pugi::xml_node parent) {
    if (fitsXml(text) && !text.starts_with(REAL_MARK) && !text.starts_with(NATURAL_MARK))
        setText(parent.append_child("string"), text);
    else
        setText(parent.append_child("base64"), Base64Encoder::encode(text));
}

void writeName(std::string_view name, pugi::xml_node parent) {
    if (fitsXml(name) && !name.starts_with(NAME_MARK))
        setText(parent.append_child("name"), name);
    else
        setText(parent.append_child("name"), std::string(NAME_MARK) + Base64Encoder::encode(name));
}

void writeObject(std::span<const Member> members, pugi::xml_node parent, unsigned depth);

void writeValue(const Value& value, pugi::xml_node parent, unsigned depth) {
    switch (value.getKind()) {
    case Kind::NOTHING:
        parent.append_child("nil");
        break;
    case Kind::BOOL:
        setText(parent.append_child("boolean"), value.getBool() ? "1" : "0");
        break;
    case Kind::INTEGER:
        writeInteger(value.getInteger(), parent);
        break;
    case Kind::NATURAL:
        writeMarked(NATURAL_MARK, std::to_string(value.getNatural()), parent);
        break;
    case Kind::REAL:
        writeReal(value.getReal(), parent);
        break;
    case Kind::TEXT:
        writeText(value.getText(), parent);
        break;
    case Kind::ARRAY: {
        checkDepth(depth + 1);
        pugi::xml_node list = parent.append_child("array").append_child("data");
        for (const Value& element : value.getElements())
            writeValue(element, list.append_child("value"), depth + 1);
        break;
    }
    case Kind::OBJECT:
        writeObject(value.getMembers(), parent, depth + 1);
        break;
    }
}

void writeObject(std::span<const Member> members, pugi::xml_node parent, unsigned depth) {
    checkDepth(depth);
    pugi::xml_node node = parent.append_child("struct");
    for (const Member& member : members) {
        pugi::xml_node child = node.append_child("member");
        writeName(member.key, child);
        writeValue(member.value, child.append_child("value"), depth);
    }
}

/// The character data directly below `node`.
std::string getText(pugi::xml_node node) {
    std::string text;
    for (const pugi::xml_node child : node.children())
        if (child.type() == pugi::node_pcdata || child.type() == pugi::node_cdata)
            text += child.value();
    return text;
}

pugi::xml_node firstElement(pugi::xml_node node) {
    return node.find_child([](pugi::xml_node child) { return child.type() == pugi::node_element; });
}

std::string decodeBase64(std::string text) {
    std::erase_if(text, [](char c) { return std::string_view(" \t\r\n").find(c) != std::string_view::npos; });
    std::string error;
    const std::optional<std::string> bytes = Base64Encoder::decodeBytes(text, &error);
    if (!bytes)
        raiseMalformed("\"" + text.substr(0, 60) + "\" isn't Base64: " + error);
    if (!StringHelper::isValidUtf8(*bytes))
        raiseMalformed("a text in Base64 isn't UTF-8");
    return *bytes;
}

template <class T>
T parseNumber(const std::string& text, const char* kind) {
    T number{};
    const char* end = text.data() + text.size();
    const auto [stop, code] = std::from_chars(text.data(), end, number);
    if (code != std::errc() || stop != end)
        raiseMalformed("\"" + text.substr(0, 60) + "\" isn't a number of the kind \"" + kind + "\"");
    return number;
}

void checkParsedDepth(unsigned depth) {
    if (depth > Properties::MAX_DEPTH)
        raiseMalformed("it is nested deeper than " + std::to_string(Properties::MAX_DEPTH) + " levels");
}

/// Reads values into the arena of a tree.
class Parser {
public:
    explicit Parser(Arena& arena) : _arena(arena) {}

    std::vector<Member> parseMembers(pugi::xml_node node, unsigned depth);

private:
    Value parseValue(pugi::xml_node node, unsigned depth);
    Value parseArray(pugi::xml_node node, unsigned depth);
    Value parseString(const std::string& text);
    Value makeText(const std::string& text) { return Value::text(_arena.store(text)); }

    Arena& _arena;
};

/// The value below the "value" element `node`.
Value Parser::parseValue(pugi::xml_node node, unsigned depth) {
    const pugi::xml_node typed = firstElement(node);
    const std::string_view kind = typed.name();
    if (!typed)
        return makeText(getText(node));
    if (kind == "struct")
        return Value::object(_arena.store(parseMembers(typed, depth + 1)));
    if (kind == "array")
        return parseArray(typed, depth + 1);
    const std::string text = getText(typed);
    if (kind == "string")
        return parseString(text);
    if (kind == "base64")
        return makeText(decodeBase64(text));
    if (kind == "i8" || kind == "i4" || kind == "int")
        return Value::integer(parseNumber<std::int64_t>(text, "integer"));
    if (kind == "double")
        return Value::real(parseNumber<double>(text, "real"));
    if (kind == "boolean" && (text == "0" || text == "1"))
        return Value::boolean(text == "1");
    if (kind == "nil")
        return Value();
    if (kind == "dateTime.iso8601")
        return makeText(text);
    raiseMalformed("a value of the kind \"" + std::string(kind.substr(0, 60)) + "\" isn't known");
}

/// A text, or a number behind a mark.
Value Parser::parseString(const std::string& text) {
    if (text.starts_with(NATURAL_MARK))
        return Value::natural(parseNumber<std::uint64_t>(text.substr(NATURAL_MARK.size()), "natural"));
    if (text.starts_with(REAL_MARK))
        return Value::real(parseNumber<double>(text.substr(REAL_MARK.size()), "real"));
    return makeText(text);
}

Value Parser::parseArray(pugi::xml_node node, unsigned depth) {
    checkParsedDepth(depth);
    std::vector<Value> elements;
    for (const pugi::xml_node element : node.child("data").children("value"))
        elements.push_back(parseValue(element, depth));
    return Value::array(_arena.store(elements));
}

std::vector<Member> Parser::parseMembers(pugi::xml_node node, unsigned depth) {
    checkParsedDepth(depth);
    std::vector<Member> members;
    for (const pugi::xml_node child : node.children("member")) {
        const pugi::xml_node name = child.child("name");
        if (!name || !child.child("value"))
            raiseMalformed("a member has no name or no value");
        std::string key = getText(name);
        if (key.starts_with(NAME_MARK))
            key = decodeBase64(key.substr(NAME_MARK.size()));
        members.push_back(Member{_arena.store(key), parseValue(child.child("value"), depth)});
    }
    if (const std::string_view* key = PropertyTree::findDuplicate(members))
        raiseMalformed("the key \"" + std::string(*key) + "\" stands there twice");
    return members;
}

class StringWriter : public pugi::xml_writer {
public:
    void write(const void* data, std::size_t size) override {
        text.append(static_cast<const char*>(data), size);
    }
    std::string text;
};

} // namespace

std::string write(const Tree& tree) {
    pugi::xml_document document;
    writeObject(tree.getMembers(), document.append_child("value"), 1);
    StringWriter writer;
    document.save(writer, "", pugi::format_raw | pugi::format_no_declaration, pugi::encoding_utf8);
    return writer.text.substr(BEGIN.size());
}

Tree parse(std::string_view given) {
    const bool isWhole = given.starts_with(BEGIN);
    const std::string xml = std::string(isWhole ? "" : BEGIN).append(given);
    if (xml.size() > Properties::MAX_TEXT_SIZE)
        raiseMalformed("its " + std::to_string(xml.size()) + " bytes are more than the limit of " +
                       std::to_string(Properties::MAX_TEXT_SIZE));
    if (xml.find('\0') != std::string_view::npos || !StringHelper::isValidUtf8(xml))
        raiseMalformed("it isn't UTF-8 text without zero bytes");
    constexpr unsigned FLAGS = pugi::parse_escapes | pugi::parse_cdata | pugi::parse_ws_pcdata_single;
    pugi::xml_document document;
    const pugi::xml_parse_result result =
        document.load_buffer(xml.data(), xml.size(), FLAGS, pugi::encoding_utf8);
    if (!result)
        raiseMalformed(std::string(result.description()) + " at byte " + std::to_string(result.offset));
    const pugi::xml_node root = firstElement(document);
    const pugi::xml_node members = firstElement(root);
    if (std::string_view(root.name()) != "value" || std::string_view(members.name()) != "struct")
        raiseMalformed("a value with one struct was expected");
    Tree tree;
    // The members' keys were compared already.
    static_cast<void>(tree.assign(Parser(tree.getArena()).parseMembers(members, 1)));
    return tree;
}

} // namespace PropertyXml
