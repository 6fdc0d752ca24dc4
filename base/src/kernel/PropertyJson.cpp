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
#include <cstring>
#include <limits>
#include <span>
#include <utility>
#include <vector>

namespace PropertyJson {

using PropertyTree::Arena;
using PropertyTree::Kind;
using PropertyTree::Member;
using PropertyTree::Tree;
using PropertyTree::Value;

namespace {

constexpr std::string_view REAL_KEY = "$real";
/// [bytes] First guesses at the memory behind a text.
constexpr std::size_t MIN_EXPECTED = 256;
constexpr std::size_t MAX_EXPECTED = std::size_t(1) << 16;

bool isRealKey(std::string_view key) {
    return key.size() >= REAL_KEY.size() && key.ends_with(REAL_KEY) &&
           key.find_first_not_of('$') == key.size() - REAL_KEY.size() + 1;
}

const char* nonFiniteName(double value) {
    return std::isnan(value) ? "nan" : value > 0 ? "inf" : "-inf";
}

/// The value of an object below the root whose one member has a key of write()'s own.
Value decodeReal(Member& member) {
    const std::string_view text =
        member.value.getKind() == Kind::TEXT ? member.value.getText() : std::string_view();
    if (member.key.size() > REAL_KEY.size())
        member.key.remove_prefix(1);
    else if (text == "nan")
        return Value::real(std::numeric_limits<double>::quiet_NaN());
    else if (text == "inf")
        return Value::real(std::numeric_limits<double>::infinity());
    else if (text == "-inf")
        return Value::real(-std::numeric_limits<double>::infinity());
    return Value::object({&member, 1});
}

/// Builds a tree from the reader's events. Texts stay where the reader decoded them, in the arena. What is
/// open lies on two stacks, members of objects and elements of arrays; an end moves its part into the arena.
class TreeBuilder {
public:
    /// @param hasEscapes  whether the text has any escape of a code unit
    TreeBuilder(Tree& tree, bool hasEscapes) : _tree(tree), _hasEscapes(hasEscapes) {
        _members.reserve(EXPECTED_OPEN);
        _elements.reserve(EXPECTED_OPEN);
    }

    const std::string& getReason() const { return _reason; }

    bool Null() { return add(Value()); }
    bool Bool(bool value) { return add(Value::boolean(value)); }
    bool String(const char* text, rapidjson::SizeType length, bool) {
        return checkSurrogates({text, length}) && add(Value::text({text, length}));
    }
    bool Key(const char* text, rapidjson::SizeType length, bool) {
        _members.push_back(Member{{text, length}, Value()});
        return checkSurrogates({text, length});
    }
    bool RawNumber(const char* text, rapidjson::SizeType length, bool) { return addNumber({text, length}); }

    bool StartObject() { return open(false); }
    bool StartArray() { return open(true); }

    bool EndObject(rapidjson::SizeType) {
        const std::span<const Member> members =
            std::span<const Member>(_members).subspan(_frames.back().first);
        const bool isRoot = _frames.size() == 1;
        if (const std::string_view* key =
                isRoot ? _tree.assign(members) : PropertyTree::findDuplicate(members))
            return fail(std::string("the key \"").append(*key).append("\" stands there twice"));
        const Value value = isRoot ? Value() : makeObject(members);
        _members.resize(_frames.back().first);
        _frames.pop_back();
        return isRoot || add(value);
    }

    bool EndArray(rapidjson::SizeType) {
        const std::span<const Value> elements =
            std::span<const Value>(_elements).subspan(_frames.back().first);
        const Value value = Value::array(_tree.getArena().store(elements));
        _elements.resize(_frames.back().first);
        _frames.pop_back();
        return add(value);
    }

    // The reader asks for these although numbers reach it as text.
    bool Int(int) { return false; }
    bool Uint(unsigned) { return false; }
    bool Int64(std::int64_t) { return false; }
    bool Uint64(std::uint64_t) { return false; }
    bool Double(double) { return false; }

private:
    static constexpr std::size_t EXPECTED_OPEN = 32;

    struct Frame {
        bool isArray;
        std::size_t first;
    };

    bool fail(std::string reason) {
        _reason = std::move(reason);
        return false;
    }

    Value makeObject(std::span<const Member> members) {
        const std::span<Member> stored = _tree.getArena().store(members);
        if (stored.size() == 1 && isRealKey(stored[0].key))
            return decodeReal(stored[0]);
        return Value::object(stored);
    }

    bool add(const Value& value) {
        if (_frames.empty())
            return fail("an object was expected");
        if (_frames.back().isArray)
            _elements.push_back(value);
        else
            _members.back().value = value;
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
        if (!_hasEscapes)
            return true;
        for (std::size_t at = text.find('\xED'); at < text.size() - 1; at = text.find('\xED', at + 1))
            if (static_cast<unsigned char>(text[at + 1]) >= 0xA0)
                return fail("an escape is half of a surrogate pair");
        return true;
    }

    bool addNumber(std::string_view text) {
        const char* const end = text.data() + text.size();
        if (std::none_of(text.begin(), text.end(), [](char c) { return c == '.' || c == 'e' || c == 'E'; })) {
            std::int64_t integer = 0;
            if (std::from_chars(text.data(), end, integer).ec == std::errc())
                return add(Value::integer(integer));
            std::uint64_t natural = 0;
            if (text.front() != '-' && std::from_chars(text.data(), end, natural).ec == std::errc())
                return add(Value::natural(natural));
        }
        double real = 0.0;
        if (std::from_chars(text.data(), end, real).ec == std::errc())
            return add(Value::real(real));
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
        return add(Value::real(text.front() == '-' ? -0.0 : 0.0));
    }

    Tree& _tree;
    bool _hasEscapes;
    std::vector<Frame> _frames;
    std::vector<Member> _members;
    std::vector<Value> _elements;
    std::string _reason;
};

[[noreturn]] void raiseMalformed(std::size_t position, const std::string& reason) {
    raise(InputError("Malformed JSON at byte " + std::to_string(position) + ": " + reason));
}

/// Why the reader stopped.
std::string describeFailure(const rapidjson::ParseResult& result, const std::string& builderReason,
                            std::string_view text) {
    if (!builderReason.empty())
        return builderReason;
    if (result.Code() == rapidjson::kParseErrorStringEscapeInvalid &&
        static_cast<unsigned char>(text[result.Offset()]) < 0x20)
        return "a control character must be escaped";
    return rapidjson::GetParseError_En(result.Code());
}

/// The part of `text` that may be anything but ASCII, ASCII standing before and behind it.
std::string_view skipAscii(std::string_view text) {
    constexpr std::uint64_t HIGH_BITS = 0x8080808080808080u;
    std::uint64_t word = 0;
    const auto isAsciiAt = [&](std::size_t at) {
        std::memcpy(&word, text.data() + at, sizeof word);
        return (word & HIGH_BITS) == 0;
    };
    std::size_t skipped = 0;
    while (skipped + sizeof word <= text.size() && isAsciiAt(skipped))
        skipped += sizeof word;
    text.remove_prefix(skipped);
    while (text.size() >= sizeof word && isAsciiAt(text.size() - sizeof word))
        text.remove_suffix(sizeof word);
    return text;
}

void checkEncoding(std::string_view text) {
    const std::size_t zero = text.find('\0');
    if (zero != std::string_view::npos)
        raiseMalformed(zero, "a zero byte isn't allowed there");
    if (StringHelper::isValidUtf8(skipAscii(text)))
        return;
    const std::string valid = StringHelper::toValidUtf8(text);
    const auto position =
        std::mismatch(text.begin(), text.end(), valid.begin(), valid.end()).first - text.begin();
    raiseMalformed(static_cast<std::size_t>(position), "the text isn't valid UTF-8");
}

/// Whether a text has characters that JSON escapes, eight at a time.
bool needsEscape(std::string_view text) {
    constexpr std::uint64_t ONES = 0x0101010101010101u;
    constexpr std::uint64_t HIGH_BITS = 0x80 * ONES;
    // The high bit of each byte of `word` that is below `limit`, which is at most 0x80; above the first,
    // others too.
    const auto below = [](std::uint64_t word, std::uint64_t limit) {
        return (word - limit * ONES) & ~word & HIGH_BITS;
    };
    std::uint64_t word = 0;
    for (; text.size() >= sizeof word; text.remove_prefix(sizeof word)) {
        std::memcpy(&word, text.data(), sizeof word);
        if ((below(word, 0x20) | below(word ^ ('"' * ONES), 1) | below(word ^ ('\\' * ONES), 1)) != 0)
            return true;
    }
    return std::any_of(text.begin(), text.end(),
                       [](char c) { return static_cast<unsigned char>(c) < 0x20 || c == '"' || c == '\\'; });
}

/// A writer that copies a text in one piece where it can.
class LineWriter : public rapidjson::Writer<rapidjson::StringBuffer> {
public:
    explicit LineWriter(rapidjson::StringBuffer& buffer) : Writer(buffer) {}

    bool String(const char* text, rapidjson::SizeType size) {
        if (needsEscape({text, size}))
            return Writer::String(text, size);
        Prefix(rapidjson::kStringType);
        char* out = os_->Push(std::size_t(size) + 2);
        *out++ = '"';
        std::memcpy(out, text, size);
        out[size] = '"';
        return true;
    }
};

template <class Writer>
class TreeWriter {
public:
    explicit TreeWriter(Writer& writer) : _writer(writer) {}

    void writeObject(std::span<const Member> members, unsigned depth) {
        ORVEX_ASSERT(depth <= Properties::MAX_DEPTH, "A Properties is nested too deep to be written");
        _writer.StartObject();
        if (depth > 1 && members.size() == 1 && isRealKey(members[0].key))
            writeMember(std::string("$").append(members[0].key), members[0].value, depth);
        else
            for (const Member& member : members)
                writeMember(member.key, member.value, depth);
        _writer.EndObject();
    }

    void writeValue(const Value& value, unsigned depth) {
        switch (value.getKind()) {
        case Kind::NOTHING:
            _writer.Null();
            break;
        case Kind::BOOL:
            _writer.Bool(value.getBool());
            break;
        case Kind::INTEGER:
            _writer.Int64(value.getInteger());
            break;
        case Kind::NATURAL:
            _writer.Uint64(value.getNatural());
            break;
        case Kind::REAL:
            writeReal(value.getReal());
            break;
        case Kind::TEXT:
            writeText(value.getText());
            break;
        case Kind::ARRAY:
            writeArray(value.getElements(), depth + 1);
            break;
        case Kind::OBJECT:
            writeObject(value.getMembers(), depth + 1);
            break;
        }
    }

private:
    void writeText(std::string_view text) {
        // The writer wants an address even where there is nothing to read.
        _writer.String(text.empty() ? "" : text.data(), static_cast<rapidjson::SizeType>(text.size()));
    }

    void writeMember(std::string_view key, const Value& value, unsigned depth) {
        writeText(key); // a key is a text in the place of a key
        writeValue(value, depth);
    }

    void writeArray(std::span<const Value> array, unsigned depth) {
        ORVEX_ASSERT(depth <= Properties::MAX_DEPTH, "A Properties is nested too deep to be written");
        _writer.StartArray();
        for (const Value& element : array)
            writeValue(element, depth);
        _writer.EndArray();
    }

    void writeReal(double value) {
        if (!std::isfinite(value)) {
            _writer.StartObject();
            writeText(REAL_KEY);
            writeText(nonFiniteName(value));
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
    Tree tree;
    Arena& arena = tree.getArena();
    arena.reserve(text.size() + std::min(text.size() * 2, MAX_EXPECTED) + MIN_EXPECTED);
    char* const buffer = arena.allocate(text.size() + 1);
    text.copy(buffer, text.size());
    buffer[text.size()] = '\0';

    constexpr unsigned FLAGS = rapidjson::kParseInsituFlag | rapidjson::kParseNumbersAsStringsFlag;
    rapidjson::InsituStringStream stream(buffer);
    rapidjson::Reader reader;
    TreeBuilder builder(tree, text.find("\\u") != std::string_view::npos);
    const rapidjson::ParseResult result = reader.Parse<FLAGS>(stream, builder);
    if (!result)
        raiseMalformed(result.Offset(), describeFailure(result, builder.getReason(), text));
    return tree;
}

std::string write(const Tree& tree, Style style) {
    rapidjson::StringBuffer buffer(nullptr, tree.getArena().getUsed() + MIN_EXPECTED);
    if (style == Style::ONE_LINE) {
        LineWriter writer(buffer);
        TreeWriter(writer).writeObject(tree.getMembers(), 1);
    } else {
        rapidjson::PrettyWriter<rapidjson::StringBuffer> writer(buffer);
        writer.SetIndent(' ', 2);
        TreeWriter(writer).writeObject(tree.getMembers(), 1);
    }
    return std::string(buffer.GetString(), buffer.GetSize());
}

std::string write(const Value& value) {
    rapidjson::StringBuffer buffer;
    LineWriter writer(buffer);
    TreeWriter(writer).writeValue(value, 1);
    return std::string(buffer.GetString(), buffer.GetSize());
}

} // namespace PropertyJson
