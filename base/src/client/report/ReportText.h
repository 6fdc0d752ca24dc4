#pragma once

#include <cstddef>
#include <string>
#include <string_view>

/// Texts and numbers of the report.
namespace ReportText {

/// `text` for HTML, as content or in quotes. Faulty UTF-8 and control characters become visible.
std::string escape(std::string_view text);
/// The same, with places for a line break behind "::", "/" and before capitals.
std::string breakable(std::string_view text);
/// `text` with at most `length` characters, cut in the middle by "…".
std::string shorten(std::string_view text, std::size_t length);
/// `text` as a JSON string that may stand in an element script.
std::string quote(std::string_view text);

/// `value` with 3 significant digits and without an exponent, for example "0.0123", "1.23", "123", "12345".
std::string number(double value);
/// `value` with `decimals` digits behind the point.
std::string fixed(double value, int decimals);
/// As in "31 %".
std::string percent(double fraction);

/// A unit in which the values of a column are easy to read.
struct Unit {
    const char* name;
    double size; ///< in seconds or bytes, or in ones
};
Unit secondsUnit(double greatest);
Unit bytesUnit(double greatest);
/// With the unit, as in "12.3 ms", "5.71 GiB".
std::string seconds(double value);
std::string bytes(double value);
/// As in "2026-11-24 19:39:07", in the time zone of this process; empty for 0.
std::string time(double secondsSinceEpoch);

} // namespace ReportText
