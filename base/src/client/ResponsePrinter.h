#pragma once

#include <iosfwd>
#include <set>
#include <string>
#include <string_view>

/// Writes JSON for people: keys and values in aligned columns, lists of objects as tables.
class ResponsePrinter {
public:
    explicit ResponsePrinter(std::ostream& stream) : _stream(stream) {}

    /// @param json    an object
    /// @param hidden  keys of the object that are left out
    void print(std::string_view json, const std::set<std::string>& hidden = {});

private:
    std::ostream& _stream;
};
