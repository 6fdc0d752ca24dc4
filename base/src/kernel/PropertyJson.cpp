#include "kernel/PropertyJson.h"

#include "kernel/Properties.h"
#include "kernel/Raise.h"
#include "platform/StringHelper.h"

#include <rapidjson/error/en.h>
#include <rapidjson/prettywriter.h>
#include <rapidjson/reader.h>
#include <rapidjson/stringbuffer.h>
#include <rapidjson/writer.h>

#include <algorithm>
#include <charconv>
#include <cmath>
#include <iterator>
#include <limits>
#include <type_traits>
#include <utility>

namespace PropertyJson {

using PropertyTree::Array;
using PropertyTree::Member;
using PropertyTree::Tree;
using PropertyTree::Value;

namespace {

constexpr std::string_view REAL_KEY = "$real";

bool isRealKey(std::string_view key) {
    return key.size() >= REAL_KEY.size() && key.ends_with(REAL_KEY) &&
           key.find_first_not_of('$') == key.size() - REAL_KEY.size() + 1;
}

const char* nonFiniteName(double value) {
    return std::isnan(value) ? "nan" : value > 0 ? "inf" : "-inf";
}

/// Gives `value` what `tree`, an object below the root, stands for.
void decodeObject(Tree tree, Value& value) {
    const std::vector<Member>& members = tree.getMembers();
    if (members.size() == 1 && isRealKey(members[0].key)) {
        const std::string* name = std::get_if<std::string>(&members[0].value.data);
        if (members[0].key.size() > REAL_KEY.size()) {
            Tree renamed;
            renamed.append(members[0].key.substr(1), members[0].value);
            tree = std::move(renamed);
        } else if (name != nullptr && *name == "nan") {
            value.data.emplace<double>(std::numeric_limits<double>::quiet_NaN());
            return;
        } else if (name != nullptr && (*name == "inf" || *name == "-inf")) {
            const double infinity = std::numeric_limits<double>::infinity();
            value.data.emplace<double>(name->front() == '-' ? -infinity : infinity);
            return;
        }
    }
    value.data.emplace<Tree>(std::move(tree));
}

/// Builds a tree from the reader's events. What is open lies on two stacks, members of objects and elements
/// of arrays; an end moves its part into a container of the exact size.
class TreeBuilder {
public:
    Tree takeRoot() { return std::move(_root); }
    const std::string& getReason() const { return _reason; }

    bool Null() { return add(std::monostate()); }
    bool Bool(bool value) { return add(value); }
    bool String(const char* text, rapidjson::SizeType length, bool) {
        const std::string_view view(text, length);
        return checkSurrogates(view) && add(std::string(view));
    }
    bool Key(const char* text, rapidjson::SizeType length, bool) {
        const std::string_view view(text, length);
        _members.push_back(Member{std::string(view), Value()});
        return checkSurrogates(view);
    }
    bool RawNumber(const char* text, rapidjson::SizeType length, bool) {
        return addNumber(std::string_view(text, length));
    }

    bool StartObject() { return open(false); }
    bool StartArray() { return open(true); }

    bool EndObject(rapidjson::SizeType) {
        const auto first = _members.begin() + static_cast<std::ptrdiff_t>(_frames.back().first);
        std::vector<Member> members(std::make_move_iterator(first), std::make_move_iterator(_members.end()));
        _members.erase(first, _members.end());
        _frames.pop_back();
        Tree tree;
        if (const std::string* key = tree.assign(std::move(members)))
            return fail("the key \"" + *key + "\" stands there twice");
        if (_frames.empty())
            _root = std::move(tree);
        else
            decodeObject(std::move(tree), next());
        return true;
    }

    bool EndArray(rapidjson::SizeType) {
        const auto first = _elements.begin() + static_cast<std::ptrdiff_t>(_frames.back().first);
        Array array(std::make_move_iterator(first), std::make_move_iterator(_elements.end()));
        _elements.erase(first, _elements.end());
        _frames.pop_back();
        return add(std::move(array));
    }

    // The reader asks for these although numbers reach it as text.
    bool Int(int) { return false; }
    bool Uint(unsigned) { return false; }
    bool Int64(std::int64_t) { return false; }
    bool Uint64(std::uint64_t) { return false; }
    bool Double(double) { return false; }

private:
    struct Frame {
        bool isArray;
        std::size_t first;
    };

    bool fail(std::string reason) {
        _reason = std::move(reason);
        return false;
    }

    /// Where the value goes that was just read.
    Value& next() { return _frames.back().isArray ? _elements.emplace_back() : _members.back().value; }

    template <class T>
    bool add(T value) {
        if (_frames.empty())
            return fail("an object was expected");
        next().data.template emplace<T>(std::move(value));
        return true;
    }

    bool open(bool isArray) {
        if (_frames.empty() && isArray)
            return fail("an object was expected");
        if (_frames.size() >= Properties::MAX_DEPTH)
            return fail("it is nested deeper than " + std::to_string(Properties::MAX_DEPTH) + " levels");
        _frames.push_back(Frame{isArray, isArray ? _elements.size() : _members.size()});
        return true;
    }

    /// The reader lets a lone low surrogate pass as an escape; it comes out as ED A0..BF.
    bool checkSurrogates(std::string_view text) {
        for (std::size_t at = text.find('\xED'); at < text.size() - 1; at = text.find('\xED', at + 1))
            if (static_cast<unsigned char>(text[at + 1]) >= 0xA0)
                return fail("an escape is half of a surrogate pair");
        return true;
    }

    bool addNumber(std::string_view text) {
        const char* const end = text.data() + text.size();
        if (text.find_first_of(".eE") == std::string_view::npos) {
            std::int64_t integer = 0;
            if (std::from_chars(text.data(), end, integer).ec == std::errc())
                return add(integer);
            std::uint64_t natural = 0;
            if (text.front() != '-' && std::from_chars(text.data(), end, natural).ec == std::errc())
                return add(natural);
        }
        double real = 0.0;
        if (std::from_chars(text.data(), end, real).ec == std::errc())
            return add(real);
        return addExtremeNumber(text);
    }

    /// Beyond the range of double: too small is zero, too large an error.
    bool addExtremeNumber(std::string_view text) {
        const std::size_t mark = std::min(text.find_first_of("eE"), text.size());
        const std::size_t point = std::min(text.find('.'), mark);
        const std::size_t digit = text.find_first_of("123456789");
        long long exponent = 0;
        if (mark < text.size()) {
            const char* first = text.data() + mark + (text[mark + 1] == '+' ? 2 : 1);
            if (std::from_chars(first, text.data() + text.size(), exponent).ec != std::errc())
                exponent = *first == '-' ? INT32_MIN : INT32_MAX;
        }
        if (static_cast<long long>(point) - static_cast<long long>(digit) + exponent > 0)
            return fail("the number is too large");
        return add(text.front() == '-' ? -0.0 : 0.0);
    }

    Tree _root;
    std::vector<Frame> _frames;
    std::vector<Member> _members;
    std::vector<Value> _elements;
    std::string _reason;
};

[[noreturn]] void raiseMalformed(std::size_t position, const std::string& reason) {
    raise(InputError("Malformed JSON at byte " + std::to_string(position) + ": " + reason));
}

void checkEncoding(std::string_view text) {
    const std::size_t zero = text.find('\0');
    if (zero != std::string_view::npos)
        raiseMalformed(zero, "a zero byte isn't allowed there");
    if (StringHelper::isValidUtf8(text))
        return;
    const std::string valid = StringHelper::toValidUtf8(text);
    const auto position =
        std::mismatch(text.begin(), text.end(), valid.begin(), valid.end()).first - text.begin();
    raiseMalformed(static_cast<std::size_t>(position), "the text isn't valid UTF-8");
}

template <class Writer>
class TreeWriter {
public:
    explicit TreeWriter(Writer& writer) : _writer(writer) {}

    void writeTree(const Tree& tree, unsigned depth) {
        ORVEX_ASSERT(depth <= Properties::MAX_DEPTH, "A Properties is nested too deep to be written");
        const std::vector<Member>& members = tree.getMembers();
        _writer.StartObject();
        if (depth > 1 && members.size() == 1 && isRealKey(members[0].key))
            writeMember("$" + members[0].key, members[0].value, depth);
        else
            for (const Member& member : members)
                writeMember(member.key, member.value, depth);
        _writer.EndObject();
    }

    void writeValue(const Value& value, unsigned depth) {
        std::visit(
            [&](const auto& data) {
                using T = std::decay_t<decltype(data)>;
                if constexpr (std::is_same_v<T, std::monostate>)
                    _writer.Null();
                else if constexpr (std::is_same_v<T, bool>)
                    _writer.Bool(data);
                else if constexpr (std::is_same_v<T, std::int64_t>)
                    _writer.Int64(data);
                else if constexpr (std::is_same_v<T, std::uint64_t>)
                    _writer.Uint64(data);
                else if constexpr (std::is_same_v<T, double>)
                    writeReal(data);
                else if constexpr (std::is_same_v<T, std::string>)
                    _writer.String(data.data(), static_cast<rapidjson::SizeType>(data.size()));
                else if constexpr (std::is_same_v<T, Array>)
                    writeArray(data, depth + 1);
                else
                    writeTree(data, depth + 1);
            },
            value.data);
    }

private:
    void writeMember(const std::string& key, const Value& value, unsigned depth) {
        _writer.Key(key.data(), static_cast<rapidjson::SizeType>(key.size()));
        writeValue(value, depth);
    }

    void writeArray(const Array& array, unsigned depth) {
        ORVEX_ASSERT(depth <= Properties::MAX_DEPTH, "A Properties is nested too deep to be written");
        _writer.StartArray();
        for (const Value& element : array)
            writeValue(element, depth);
        _writer.EndArray();
    }

    void writeReal(double value) {
        if (!std::isfinite(value)) {
            _writer.StartObject();
            _writer.Key(REAL_KEY.data(), static_cast<rapidjson::SizeType>(REAL_KEY.size()));
            _writer.String(nonFiniteName(value));
            _writer.EndObject();
            return;
        }
        char text[40];
        char* end = std::to_chars(text, text + sizeof text, value).ptr;
        if (std::find_if(text, end, [](char c) { return c == '.' || c == 'e'; }) == end) {
            *end++ = '.';
            *end++ = '0';
        }
        _writer.RawValue(text, static_cast<std::size_t>(end - text), rapidjson::kNumberType);
    }

    Writer& _writer;
};

} // namespace

Tree parse(std::string_view text) {
    if (text.size() > Properties::MAX_TEXT_SIZE)
        raise(InputError("Malformed JSON: its " + std::to_string(text.size()) +
                         " bytes are more than the limit of " + std::to_string(Properties::MAX_TEXT_SIZE)));
    checkEncoding(text);
    constexpr unsigned FLAGS = rapidjson::kParseInsituFlag | rapidjson::kParseNumbersAsStringsFlag;
    std::string buffer(text);
    rapidjson::InsituStringStream stream(buffer.data());
    rapidjson::Reader reader;
    TreeBuilder builder;
    const rapidjson::ParseResult result = reader.Parse<FLAGS>(stream, builder);
    if (!result)
        raiseMalformed(result.Offset(), builder.getReason().empty()
                                            ? rapidjson::GetParseError_En(result.Code())
                                            : builder.getReason());
    return builder.takeRoot();
}

std::string write(const Tree& tree, Style style) {
    rapidjson::StringBuffer buffer;
    if (style == Style::ONE_LINE) {
        rapidjson::Writer<rapidjson::StringBuffer> writer(buffer);
        TreeWriter(writer).writeTree(tree, 1);
    } else {
        rapidjson::PrettyWriter<rapidjson::StringBuffer> writer(buffer);
        writer.SetIndent(' ', 2);
        TreeWriter(writer).writeTree(tree, 1);
    }
    return std::string(buffer.GetString(), buffer.GetSize());
}

std::string write(const Value& value) {
    rapidjson::StringBuffer buffer;
    rapidjson::Writer<rapidjson::StringBuffer> writer(buffer);
    TreeWriter(writer).writeValue(value, 1);
    return std::string(buffer.GetString(), buffer.GetSize());
}

} // namespace PropertyJson
