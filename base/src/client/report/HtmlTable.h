#pragma once

#include <string>
#include <vector>

/// A table of the report. Its script sorts it by the column that is clicked.
class HtmlTable {
public:
    /// Numbers stand at the right.
    struct Head {
        std::string name; ///< plain text, the unit behind a comma
        bool isNumber = true;
        std::string hint{}; ///< plain text: what the column means
    };
    struct Cell {
        /// @param html  already escaped
        Cell(std::string html) : _html(std::move(html)) {}
        Cell(const char* html) : _html(html) {}
        /// @param value  by which the column is sorted
        Cell(std::string html, double value);

        std::string _html;
        std::string _value;
    };

    HtmlTable(std::string caption, std::vector<Head> heads)
        : _caption(std::move(caption)), _heads(std::move(heads)) {}

    void add(const std::vector<Cell>& cells);
    bool isEmpty() const { return _rows.empty(); }
    std::string toHtml() const;

private:
    std::string _caption; ///< plain text
    std::vector<Head> _heads;
    std::string _rows;
};
