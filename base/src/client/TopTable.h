#pragma once

#include "client/TopView.h"
#include "kernel/profile/LiveJob.h"

#include <string>
#include <string_view>
#include <vector>

/// The kind of a line, for colours. No meaning hangs on it alone.
enum class TopStyle { PLAIN, TITLE, HEAD, SELECTED, BAD, SLOW, MEMORY, FAINT };

/// The table of the live view: a line for each host or rank, and the columns that a width has room for.
namespace TopTable {

struct Row {
    std::string key; ///< the name or the rank, tells it from the others
    const LiveHost* host = nullptr;
    const LiveRank* rank = nullptr; ///< null: the line of a host
    std::string mark;
    TopStyle style = TopStyle::PLAIN;
};
using Rows = std::vector<Row>;

struct Column {
    std::string head;
    std::size_t width = 0;
    bool isLeft = false;
    std::string (*get)(const Row& row) = nullptr;
};

/// In the order that the view asks for. The rows point into `job`.
/// @param page  lines that are shown at once: when hosts don't fit, only those that differ have a row. 0: all
Rows makeRows(const LiveJob& job, const TopView& view, std::size_t page);
/// A line about what has no row; empty when all have one.
std::string restOf(const LiveJob& job, const TopView& view, std::size_t rows);

std::vector<Column> chooseColumns(const LiveJob& job, const TopView& view, unsigned width);
std::string headsOf(const std::vector<Column>& columns);
std::string textOf(const std::vector<Column>& columns, const Row& row);

/// The text of a size in at most 5 characters, for example "12.3G".
std::string toSize(double bytes);
/// The same for a sentence: "12.3 GB".
std::string toBytes(double bytes);
/// The number of characters of UTF-8 text.
std::size_t widthOf(std::string_view text);
std::string cut(const std::string& text, std::size_t width);

} // namespace TopTable
