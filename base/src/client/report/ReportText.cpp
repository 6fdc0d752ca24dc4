#include "client/report/ReportText.h"

#include "client/CtlConsole.h"

#include <cmath>
#include <cstdio>
#include <ctime>
#include <vector>

namespace {

constexpr const char* ELLIPSIS = "…";

/// The places where the characters of `text` begin, and its end.
std::vector<std::size_t> beginnings(std::string_view text) {
    std::vector<std::size_t> places;
    for (std::size_t i = 0; i < text.size(); ++i)
        if ((static_cast<unsigned char>(text[i]) & 0xC0) != 0x80)
            places.push_back(i);
    places.push_back(text.size());
    return places;
}

} // namespace

std::string ReportText::escape(std::string_view text) {
    std::string escaped;
    for (const char c : CtlConsole::toVisible(text)) {
        switch (c) {
        case '&':
            escaped += "&amp;";
            break;
        case '<':
            escaped += "&lt;";
            break;
        case '>':
            escaped += "&gt;";
            break;
        case '"':
            escaped += "&quot;";
            break;
        case '\'':
            escaped += "&#39;";
            break;
        default:
            escaped += c;
        }
    }
    return escaped;
}

std::string ReportText::breakable(std::string_view text) {
    std::string pieces;
    std::size_t begin = 0;
    for (std::size_t i = 1; i < text.size(); ++i) {
        const bool isCapital = text[i] >= 'A' && text[i] <= 'Z' && text[i - 1] >= 'a' && text[i - 1] <= 'z';
        if (!isCapital && text[i - 1] != '/' && (text[i - 1] != ':' || text[i] == ':'))
            continue;
        pieces += escape(text.substr(begin, i - begin)) + "<wbr>";
        begin = i;
    }
    return pieces + escape(text.substr(begin));
}

std::string ReportText::shorten(std::string_view text, std::size_t length) {
    const std::vector<std::size_t> places = beginnings(text);
    const std::size_t count = places.size() - 1;
    if (count <= length || length < 3)
        return std::string(text);
    const std::size_t head = (length - 1) / 2;
    const std::size_t tail = length - 1 - head;
    return std::string(text.substr(0, places[head])) + ELLIPSIS +
           std::string(text.substr(places[count - tail]));
}

std::string ReportText::quote(std::string_view text) {
    std::string quoted = "\"";
    for (const char c : CtlConsole::toVisible(text)) {
        if (c == '"' || c == '\\')
            quoted += '\\';
        if (c == '<' || c == '>' || c == '&' || c == '\n' || c == '\t') {
            char code[8];
            std::snprintf(code, sizeof code, "\\u%04x", static_cast<unsigned>(c));
            quoted += code;
        } else
            quoted += c;
    }
    return quoted + "\"";
}

std::string ReportText::number(double value) {
    if (value == 0.0)
        return "0";
    const int magnitude = static_cast<int>(std::floor(std::log10(std::abs(value)) + 1e-12));
    return magnitude < -6 ? fixed(value, 9) : fixed(value, std::max(0, 2 - magnitude));
}

std::string ReportText::fixed(double value, int decimals) {
    char text[400];
    std::snprintf(text, sizeof text, "%.*f", decimals, value);
    return text;
}

std::string ReportText::percent(double fraction) {
    return fixed(100.0 * fraction, 0) + " %";
}

ReportText::Unit ReportText::secondsUnit(double greatest) {
    return greatest >= 1.0 || greatest <= 0.0 ? Unit{"s", 1.0}
           : greatest >= 1e-3                 ? Unit{"ms", 1e-3}
                                              : Unit{"µs", 1e-6};
}

ReportText::Unit ReportText::bytesUnit(double greatest) {
    return greatest >= 0x1p40   ? Unit{"TiB", 0x1p40}
           : greatest >= 0x1p30 ? Unit{"GiB", 0x1p30}
           : greatest >= 0x1p20 ? Unit{"MiB", 0x1p20}
           : greatest >= 0x1p10 ? Unit{"KiB", 0x1p10}
                                : Unit{"B", 1.0};
}

std::string ReportText::seconds(double value) {
    const Unit unit = secondsUnit(std::abs(value));
    return number(value / unit.size) + " " + unit.name;
}

std::string ReportText::bytes(double value) {
    const Unit unit = bytesUnit(std::abs(value));
    return number(value / unit.size) + " " + unit.name;
}

std::string ReportText::time(double secondsSinceEpoch) {
    constexpr double LAST = 253402300799.0; // the end of the year 9999
    if (!(secondsSinceEpoch > 0.0 && secondsSinceEpoch < LAST))
        return {};
    const auto moment = static_cast<std::time_t>(secondsSinceEpoch);
    std::tm parts{};
    char text[32] = "";
    if (localtime_r(&moment, &parts))
        std::strftime(text, sizeof text, "%Y-%m-%d %H:%M:%S", &parts);
    return text;
}
