#include "client/CommandWords.h"

#include "kernel/server/RpcMessage.h"

#include <rapidjson/document.h>
#include <rapidjson/error/en.h>

#include <algorithm>
#include <charconv>
#include <set>
#include <utility>

namespace {

constexpr std::string_view VECTOR_OF = "vector of ";

bool isJson(const std::string& text, std::string& reason) {
    rapidjson::Document document;
    document.Parse<rapidjson::kParseIterativeFlag | rapidjson::kParseNumbersAsStringsFlag>(text.data(),
                                                                                           text.size());
    if (document.HasParseError())
        reason = rapidjson::GetParseError_En(document.GetParseError());
    return !document.HasParseError();
}

std::string json(const std::string& key, const std::string& value) {
    std::string reason;
    if (!isJson(value, reason))
        throw UsageError("The value of \"" + key + "\" isn't JSON: " + reason);
    return value;
}

template <class Number>
bool isNumber(std::string_view text) {
    Number number{};
    const std::from_chars_result result = std::from_chars(text.data(), text.data() + text.size(), number);
    return result.ec == std::errc() && result.ptr == text.data() + text.size();
}

bool isInteger(std::string_view text) {
    return isNumber<long long>(text) || isNumber<unsigned long long>(text);
}

/// The integer as JSON has it: without zeros in front.
std::string integerText(std::string_view text) {
    const bool negative = text.starts_with('-');
    text.remove_prefix(std::min(text.find_first_not_of("-0"), text.size()));
    return text.empty() ? "0" : (negative ? "-" : "") + std::string(text);
}

/// A real as JSON has it: 1., .5 and 1e3 are numbers to people.
std::string realText(std::string_view text) {
    double number = 0.0;
    std::from_chars(text.data(), text.data() + text.size(), number);
    char buffer[32];
    const std::to_chars_result result = std::to_chars(buffer, buffer + sizeof buffer, number);
    std::string real(buffer, result.ptr);
    if (real.find("nan") != std::string::npos || real.find("inf") != std::string::npos)
        return "{\"$real\":\"" + real + "\"}";
    return real.find_first_of(".e") == std::string::npos ? real + ".0" : real;
}

std::string guess(const std::string& key, const std::string& value) {
    // A number with zeros in front is a label rather than a number.
    if (value == "true" || value == "false" || (isInteger(value) && integerText(value) == value))
        return value;
    const bool looksLikeNumber = !value.empty() && !isInteger(value) &&
                                 value.find_first_not_of("+-.0123456789eE") == std::string::npos;
    if (looksLikeNumber && isNumber<double>(value))
        return realText(value);
    if (value.starts_with('[') || value.starts_with('{') || value.starts_with('"'))
        return json(key, value);
    return RpcMessage::quote(value);
}

[[noreturn]] void refuse(const std::string& key, const std::string& expected, const std::string& value) {
    throw UsageError("The value of \"" + key + "\" must be " + expected + ", not \"" + value + "\"");
}

std::string typed(const std::string& key, const std::string& type, const std::string& value) {
    if (type.starts_with(VECTOR_OF) && !value.starts_with('[')) {
        const std::string element = type.substr(VECTOR_OF.size());
        std::string list;
        for (std::size_t begin = 0; begin <= value.size() && !value.empty();) {
            const std::size_t end = std::min(value.find(',', begin), value.size());
            list += begin == 0 ? "" : ",";
            list += typed(key, element, value.substr(begin, end - begin));
            begin = end + 1;
        }
        return "[" + list + "]";
    }
    if (type == "text")
        return value.size() > 1 && value.starts_with('"') && value.ends_with('"') ? json(key, value)
                                                                                  : RpcMessage::quote(value);
    if (type == "bool") {
        if (value == "true" || value == "false")
            return value;
        refuse(key, "true or false", value);
    }
    if (type == "int" || type == "unsigned" || type == "long") {
        if (isInteger(value))
            return integerText(value);
        refuse(key, "an integer", value);
    }
    if (type == "real") {
        if (isNumber<double>(value))
            return realText(value);
        refuse(key, "a number", value);
    }
    if (type == "properties" || type.starts_with(VECTOR_OF))
        return json(key, value);
    return guess(key, value);
}

bool isBlank(char c) {
    return c == ' ' || c == '\t' || c == '\r' || c == '\n';
}

/// Takes a line character by character. A JSON value is taken as it stands, up to a blank outside of it.
class LineSplitter {
public:
    void take(char c) {
        if (_comment)
            return;
        if (_escaped) {
            _escaped = false;
            add(c);
        } else if (_jsonText || _depth > 0)
            takeJson(c);
        else if (_quote)
            takeQuoted(c);
        else
            takePlain(c);
    }

    std::vector<CommandWords::Word> finish() {
        if (_quote || _jsonText || _depth > 0)
            throw UsageError("The line ends within a quote or a bracket");
        endWord();
        return std::move(_words);
    }

private:
    void takePlain(char c) {
        if (isBlank(c))
            endWord();
        else if (c == '#' && !_inWord)
            _comment = true;
        else if ((isAtValue() && (c == '{' || c == '[')) || (_word.text.ends_with(":=") && c == '"'))
            takeJson(c);
        else if (c == '"' || c == '\'') {
            _word.quoted = _word.quoted || isAtValue();
            _quote = c;
            _inWord = true;
        } else if (c == '\\')
            _escaped = _inWord = true;
        else
            add(c);
    }

    void takeQuoted(char c) {
        if (c == _quote)
            _quote = 0;
        else if (c == '\\' && _quote == '"')
            _escaped = true;
        else
            add(c);
    }

    void takeJson(char c) {
        add(c);
        if (_jsonText && c == '\\' && !_jsonEscaped) {
            _jsonEscaped = true;
            return;
        }
        if (c == '"' && !_jsonEscaped)
            _jsonText = !_jsonText;
        else if (!_jsonText && (c == '{' || c == '['))
            ++_depth;
        else if (!_jsonText && (c == '}' || c == ']'))
            --_depth;
        _jsonEscaped = false;
    }

    bool isAtValue() const { return _word.text.ends_with('='); }
    void add(char c) {
        _word.text += c;
        _inWord = true;
    }
    void endWord() {
        if (_inWord)
            _words.push_back(std::exchange(_word, CommandWords::Word()));
        _inWord = false;
    }

    std::vector<CommandWords::Word> _words;
    CommandWords::Word _word;
    char _quote = 0;
    int _depth = 0; ///< of brackets in a JSON value
    bool _inWord = false;
    bool _comment = false;
    bool _escaped = false;
    bool _jsonText = false;
    bool _jsonEscaped = false;
};

} // namespace

std::vector<CommandWords::Word> CommandWords::split(std::string_view line) {
    LineSplitter splitter;
    for (char c : line)
        splitter.take(c);
    return splitter.finish();
}

std::string CommandWords::toParams(const std::vector<Word>& words, const std::vector<KeyType>& types) {
    std::string params;
    std::set<std::string> seen;
    for (const Word& word : words) {
        const std::size_t equals = word.text.find('=');
        if (equals == std::string::npos || equals == 0)
            throw UsageError("\"" + word.text + "\" isn't an argument: expected key=value or key:=json");
        const bool isJsonValue = equals > 1 && word.text[equals - 1] == ':';
        const std::string key = word.text.substr(0, isJsonValue ? equals - 1 : equals);
        const std::string value = word.text.substr(equals + 1);
        if (!seen.insert(key).second)
            throw UsageError("The argument \"" + key + "\" is given twice");
        const auto known =
            std::find_if(types.begin(), types.end(), [&](const KeyType& each) { return each.key == key; });
        params += params.empty() ? "" : ",";
        params += RpcMessage::quote(key) + ":";
        if (isJsonValue)
            params += json(key, value);
        else if (word.quoted)
            params += RpcMessage::quote(value);
        else
            params += typed(key, known == types.end() ? std::string() : known->type, value);
    }
    return "{" + params + "}";
}
