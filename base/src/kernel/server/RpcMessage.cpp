#include "kernel/server/RpcMessage.h"

#include "platform/StringHelper.h"

#include <rapidjson/error/en.h>
#include <rapidjson/memorystream.h>
#include <rapidjson/reader.h>

namespace {

bool isJsonSpace(char c) {
    return c == ' ' || c == '\t' || c == '\r' || c == '\n';
}

/// Follows the reader through one line and notes where the members of the outermost object lie.
class MemberFinder {
public:
    MemberFinder(std::string_view line, const rapidjson::MemoryStream& stream, RpcMessage& message)
        : _line(line), _stream(stream), _message(message) {}

    bool Null() { return scalar("null"); }
    bool Bool(bool value) { return scalar(value ? "true" : "false"); }
    bool RawNumber(const char*, rapidjson::SizeType, bool) { return scalar("number"); }
    bool String(const char* text, rapidjson::SizeType length, bool) {
        _text.assign(text, length);
        return scalar("string");
    }
    bool StartObject() { return open("object"); }
    bool StartArray() { return open("array"); }
    bool EndObject(rapidjson::SizeType) { return close(); }
    bool EndArray(rapidjson::SizeType) { return close(); }

    bool Key(const char* text, rapidjson::SizeType length, bool) {
        if (_depth != 1)
            return true;
        _key.assign(text, length);
        _afterKey = _stream.Tell();
        return true;
    }

    // Number conversions are off: the reader asks for these at compile time only.
    bool Int(int) { return false; }
    bool Uint(unsigned) { return false; }
    bool Int64(std::int64_t) { return false; }
    bool Uint64(std::uint64_t) { return false; }
    bool Double(double) { return false; }

    const std::optional<RpcFault>& getFault() const { return _fault; }
    const std::string& getVersion() const { return _version; }

private:
    bool fail(RpcFault::Code code, std::string text) {
        if (!_fault)
            _fault = RpcFault{code, std::move(text)};
        return false;
    }

    bool open(const char* type) {
        if (_depth == 0 && std::string_view(type) == "array")
            return fail(RpcFault::INVALID_REQUEST, "Batches are not served: send one object a line");
        if (++_depth > RpcMessage::MAX_DEPTH + 1)
            return fail(RpcFault::INVALID_REQUEST, "The request is nested deeper than " +
                                                       std::to_string(RpcMessage::MAX_DEPTH) + " levels");
        if (_depth == 2)
            _type = type;
        return true;
    }

    bool close() {
        --_depth;
        // The reader takes the bracket after it has told of it.
        return _depth != 1 || member(_stream.Tell() + 1);
    }

    bool scalar(const char* type) {
        if (_depth == 0)
            return fail(RpcFault::INVALID_REQUEST, std::string("A request must be an object, not a ") + type);
        if (_depth > 1)
            return true;
        _type = type;
        return member(_stream.Tell());
    }

    /// A member of the outermost object is complete. Members that JSON-RPC doesn't know are passed over.
    bool member(std::size_t end) {
        std::size_t begin = _afterKey;
        while (isJsonSpace(_line[begin]) || _line[begin] == ':')
            ++begin;
        const std::string_view raw = _line.substr(begin, end - begin);
        if (_key == "jsonrpc")
            return _type == "string" ? once(_version, _text)
                                     : fail(RpcFault::INVALID_REQUEST, wrong("the text \"2.0\""));
        if (_key == "method") {
            if (_type != "string" || _text.empty() || _text.size() > RpcMessage::MAX_METHOD_LENGTH)
                return fail(
                    RpcFault::INVALID_REQUEST,
                    wrong("a text of 1 to " + std::to_string(RpcMessage::MAX_METHOD_LENGTH) + " bytes"));
            return once(_message.method, _text);
        }
        if (_key == "id") {
            if ((_type != "string" && _type != "number" && _type != "null") ||
                raw.size() > RpcMessage::MAX_ID_LENGTH)
                return fail(RpcFault::INVALID_REQUEST,
                            wrong("a text, a number or null of at most " +
                                  std::to_string(RpcMessage::MAX_ID_LENGTH) + " bytes"));
            return once(_message.id, std::string(raw));
        }
        if (_key == "params") {
            if (_type != "object")
                return fail(RpcFault::INVALID_PARAMS, wrong("an object with a key for each argument"));
            return once(_message.params, raw);
        }
        if (_key == "result")
            return once(_message.result, raw);
        if (_key == "error")
            return once(_message.error, raw);
        if (_key == "bill")
            return once(_message.bill, raw);
        return true;
    }

    std::string wrong(const std::string& expected) const {
        return "\"" + _key + "\" must be " + expected + ", not a" +
               (_type == "array" || _type == "object" ? "n " : " ") + std::string(_type) +
               (_type == "string" ? " of " + std::to_string(_text.size()) + " bytes" : "");
    }

    template <class Slot, class Value>
    bool once(Slot& slot, const Value& value) {
        if (!slot.empty())
            return fail(RpcFault::INVALID_REQUEST, "\"" + _key + "\" stands in the request twice");
        slot = value;
        return true;
    }

    std::string_view _line;
    const rapidjson::MemoryStream& _stream;
    RpcMessage& _message;
    unsigned _depth = 0;
    std::string _key;
    std::size_t _afterKey = 0;
    std::string_view _type;
    std::string _text;
    std::string _version;
    std::optional<RpcFault> _fault;
};

void appendEscaped(std::string& out, char c) {
    static constexpr char HEX[] = "0123456789abcdef";
    switch (c) {
    case '"':
        out += "\\\"";
        break;
    case '\\':
        out += "\\\\";
        break;
    case '\n':
        out += "\\n";
        break;
    case '\r':
        out += "\\r";
        break;
    case '\t':
        out += "\\t";
        break;
    default:
        out += "\\u00";
        out += HEX[static_cast<unsigned char>(c) >> 4];
        out += HEX[static_cast<unsigned char>(c) & 15];
    }
}

std::string join(std::initializer_list<std::string_view> parts) {
    std::size_t size = 0;
    for (std::string_view part : parts)
        size += part.size();
    std::string line;
    line.reserve(size);
    for (std::string_view part : parts)
        line += part;
    return line;
}

} // namespace

std::optional<RpcFault> RpcMessage::parse(std::string_view line) {
    *this = RpcMessage();
    rapidjson::MemoryStream stream(line.data(), line.size());
    MemberFinder finder(line, stream, *this);
    rapidjson::Reader reader;
    constexpr unsigned FLAGS = rapidjson::kParseIterativeFlag | rapidjson::kParseValidateEncodingFlag |
                               rapidjson::kParseNumbersAsStringsFlag | rapidjson::kParseStopWhenDoneFlag;
    const rapidjson::ParseResult parsed = reader.Parse<FLAGS>(stream, finder);
    if (finder.getFault())
        return finder.getFault();
    if (!parsed)
        return RpcFault{RpcFault::PARSE_ERROR, std::string("The line isn't JSON: ") +
                                                   rapidjson::GetParseError_En(parsed.Code()) + " At byte " +
                                                   std::to_string(parsed.Offset()) + "."};
    for (std::size_t at = stream.Tell(); at < line.size(); ++at)
        if (!isJsonSpace(line[at]))
            return RpcFault{RpcFault::PARSE_ERROR, "The line isn't JSON: text follows the object at byte " +
                                                       std::to_string(at) + "."};
    if (finder.getVersion() != "2.0")
        return RpcFault{RpcFault::INVALID_REQUEST, finder.getVersion().empty()
                                                       ? "\"jsonrpc\" is missing: expected \"2.0\""
                                                       : "\"jsonrpc\" must be \"2.0\""};
    if (method.empty() && result.empty() && error.empty())
        return RpcFault{RpcFault::INVALID_REQUEST, "\"method\" is missing"};
    return std::nullopt;
}

std::string RpcMessage::request(std::string_view id, std::string_view method, std::string_view params) {
    return join(
        {R"({"jsonrpc":"2.0","id":)", id, R"(,"method":)", quote(method), R"(,"params":)", params, "}\n"});
}

std::string RpcMessage::notification(std::string_view method, std::string_view params) {
    return join({R"({"jsonrpc":"2.0","method":)", quote(method), R"(,"params":)", params, "}\n"});
}

std::string RpcMessage::answer(std::string_view id, std::string_view result, std::string_view bill) {
    return join({R"({"jsonrpc":"2.0","id":)", id, R"(,"result":)", result, bill.empty() ? "" : R"(,"bill":)",
                 bill, "}\n"});
}

std::string RpcMessage::failure(std::string_view id, const RpcFault& fault, std::string_view data,
                                std::string_view bill) {
    return join({R"({"jsonrpc":"2.0","id":)", id.empty() ? "null" : id, R"(,"error":{"code":)",
                 std::to_string(fault.code), R"(,"message":)", quote(fault.message),
                 data.empty() ? "" : R"(,"data":)", data, "}", bill.empty() ? "" : R"(,"bill":)", bill,
                 "}\n"});
}

std::string RpcMessage::quote(std::string_view text) {
    if (!StringHelper::isValidUtf8(text))
        return quote(StringHelper::toValidUtf8(text));
    std::string out;
    out.reserve(text.size() + 2);
    out += '"';
    for (char c : text) {
        const unsigned char byte = static_cast<unsigned char>(c);
        if (c == '"' || c == '\\' || byte < 0x20 || byte == 0x7F)
            appendEscaped(out, c);
        else
            out += c;
    }
    out += '"';
    return out;
}
