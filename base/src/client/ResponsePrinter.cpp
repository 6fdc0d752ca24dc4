#include "client/ResponsePrinter.h"

#include <rapidjson/document.h>

#include <algorithm>
#include <ostream>
#include <vector>

namespace {

using rapidjson::Value;

constexpr std::size_t GAP = 2; ///< blanks between columns and before what lies deeper

/// Stands for a value without a limit, as the largest real does in the servers' answers.
constexpr std::string_view LARGEST = "1.7976931348623157e+308";

std::string_view textOf(const Value& value) {
    return {value.GetString(), value.GetStringLength()};
}

bool isScalar(const Value& value) {
    return !value.IsObject() && !value.IsArray();
}

/// A real that isn't finite comes as an object with the one key "$real".
bool isSpecialReal(const Value& value) {
    return value.IsObject() && value.MemberCount() == 1 && textOf(value.MemberBegin()->name) == "$real" &&
           value.MemberBegin()->value.IsString();
}

bool isCell(const Value& value) {
    return isScalar(value) || isSpecialReal(value);
}

std::string cellOf(const Value& value) {
    if (isSpecialReal(value))
        return std::string(textOf(value.MemberBegin()->value));
    if (value.IsBool())
        return value.GetBool() ? "true" : "false";
    if (!value.IsString())
        return {};
    const std::string_view text = textOf(value);
    return text == LARGEST ? "unlimited" : std::string(text);
}

bool isListOfCells(const Value& value) {
    return value.IsArray() && std::all_of(value.Begin(), value.End(), isCell);
}

bool isTable(const Value& value) {
    return value.IsArray() && !value.Empty() && std::all_of(value.Begin(), value.End(), [](const Value& row) {
               return row.IsObject() && !isSpecialReal(row) &&
                      std::all_of(row.MemberBegin(), row.MemberEnd(),
                                  [](const Value::Member& cell) { return isCell(cell.value); });
           });
}

/// Characters, not bytes: continuation bytes take no room on the screen.
std::size_t widthOf(std::string_view text) {
    return static_cast<std::size_t>(std::count_if(
        text.begin(), text.end(), [](char c) { return (static_cast<unsigned char>(c) & 0xC0u) != 0x80u; }));
}

std::string padded(std::string_view text, std::size_t width) {
    const std::size_t own = widthOf(text);
    return std::string(text) + std::string(width > own ? width - own : 0, ' ');
}

class Writer {
public:
    explicit Writer(std::ostream& stream) : _stream(stream) {}

    void object(const Value& object, std::size_t indent, const std::set<std::string>& hidden) {
        std::size_t width = 0;
        for (const Value::Member& member : object.GetObject())
            if (!hidden.count(member.name.GetString()))
                width = std::max(width, widthOf(textOf(member.name)));
        for (const Value::Member& member : object.GetObject())
            if (!hidden.count(member.name.GetString()))
                entry(member, indent, width + GAP);
    }

private:
    void entry(const Value::Member& member, std::size_t indent, std::size_t width) {
        const std::string margin(indent, ' ');
        const std::string_view key = textOf(member.name);
        const Value& value = member.value;
        if (isCell(value))
            lines(margin + padded(key, width), cellOf(value), indent + width);
        else if (isListOfCells(value))
            list(margin + padded(key, width), value, indent + width);
        else {
            _stream << margin << key << '\n';
            deeper(value, indent + GAP);
        }
    }

    void deeper(const Value& value, std::size_t indent) {
        if (value.IsObject()) {
            object(value, indent, {});
        } else if (isTable(value)) {
            table(value, indent);
        } else {
            for (const Value& element : value.GetArray()) {
                if (isCell(element))
                    lines(std::string(indent, ' '), cellOf(element), indent);
                else
                    deeper(element, element.IsArray() ? indent + GAP : indent);
                if (&element + 1 != value.End() && element.IsObject())
                    _stream << '\n';
            }
        }
    }

    /// A text of several lines stays in its column. A line end at its end counts for nothing.
    void lines(const std::string& head, std::string_view text, std::size_t column) {
        _stream << head;
        if (text.ends_with('\n'))
            text.remove_suffix(1);
        for (char c : text) {
            _stream << c;
            if (c == '\n')
                _stream << std::string(column, ' ');
        }
        _stream << '\n';
    }

    void list(const std::string& head, const Value& value, std::size_t column) {
        if (value.Empty())
            _stream << head << "(none)\n";
        for (const Value& element : value.GetArray())
            lines(&element == value.Begin() ? head : std::string(column, ' '), cellOf(element), column);
    }

    void table(const Value& rows, std::size_t indent) {
        std::vector<std::string> columns;
        for (const Value& row : rows.GetArray())
            for (const Value::Member& cell : row.GetObject())
                if (std::find(columns.begin(), columns.end(), cell.name.GetString()) == columns.end())
                    columns.emplace_back(cell.name.GetString());
        std::vector<std::vector<std::string>> grid{columns};
        for (const Value& row : rows.GetArray()) {
            std::vector<std::string>& cells = grid.emplace_back();
            for (const std::string& column : columns)
                cells.push_back(row.HasMember(column.c_str()) ? cellOf(row[column.c_str()]) : std::string());
        }
        std::vector<std::size_t> widths(columns.size(), 0);
        for (const auto& cells : grid)
            for (std::size_t i = 0; i < cells.size(); ++i)
                widths[i] = std::max(widths[i], widthOf(cells[i]));
        for (const auto& cells : grid) {
            std::string line(indent, ' ');
            for (std::size_t i = 0; i < cells.size(); ++i)
                line += padded(cells[i], widths[i] + GAP);
            line.erase(line.find_last_not_of(' ') + 1);
            _stream << line << '\n';
        }
    }

    std::ostream& _stream;
};

} // namespace

void ResponsePrinter::print(std::string_view json, const std::set<std::string>& hidden) {
    rapidjson::Document document;
    document.Parse<rapidjson::kParseIterativeFlag | rapidjson::kParseNumbersAsStringsFlag>(json.data(),
                                                                                           json.size());
    if (document.HasParseError() || !document.IsObject())
        _stream << json << '\n';
    else
        Writer(_stream).object(document, 0, hidden);
}
