#pragma once

#include "client/TopFrame.h"
#include "client/TopTable.h"
#include "client/TopView.h"

#include <string>
#include <vector>

/// The lines of the live view, as text. It doesn't ask anybody: the same frame and view give the same lines.
namespace TopScreen {

struct Line {
    std::string text;
    TopStyle style = TopStyle::PLAIN;
};

constexpr unsigned MIN_COLUMNS = 40;
constexpr unsigned MIN_ROWS = 10;

/// Exactly `rows` lines of at most `columns` characters.
/// @param view  keeps its selection in sight: where the lines begin, and what is selected when that is gone
std::vector<Line> draw(const TopFrame& frame, TopView& view, unsigned columns, unsigned rows);
/// All lines, not cut, for a file or a pipe.
std::vector<Line> drawPlain(const TopFrame& frame, const TopView& view);
/// Moves the selection by so many lines of what draw() showed.
void move(const TopFrame& frame, TopView& view, unsigned rows, long lines);

} // namespace TopScreen
