#include "client/report/HtmlTable.h"

#include "client/report/ReportText.h"

HtmlTable::Cell::Cell(std::string html, double value)
    : _html(std::move(html)), _value(ReportText::number(value)) {}

void HtmlTable::add(const std::vector<Cell>& cells) {
    _rows += "<tr>";
    for (std::size_t i = 0; i < cells.size(); ++i) {
        const bool isNumber = i < _heads.size() && _heads[i].isNumber;
        const char* const element = i == 0 ? "th" : "td";
        _rows += std::string("<") + element + (i == 0 ? " scope=\"row\"" : "") +
                 (isNumber ? " class=\"n\"" : "") +
                 (cells[i]._value.empty() ? "" : " data-v=\"" + cells[i]._value + "\"") + ">" +
                 cells[i]._html + "</" + element + ">";
    }
    _rows += "</tr>\n";
}

std::string HtmlTable::toHtml() const {
    std::string html = "<div class=\"scroll\"><table class=\"sortable\"><caption>" +
                       ReportText::escape(_caption) + "</caption>\n<thead><tr>";
    for (const Head& head : _heads)
        html += std::string("<th scope=\"col\"") + (head.isNumber ? " class=\"n\"" : "") +
                (head.hint.empty() ? "" : " title=\"" + ReportText::escape(head.hint) + "\"") + ">" +
                ReportText::escape(head.name) + "</th>";
    return html + "</tr></thead>\n<tbody>\n" + _rows + "</tbody></table></div>\n";
}
