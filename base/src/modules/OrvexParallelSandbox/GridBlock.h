#pragma once

#include <array>
#include <optional>

/// The part of a plane grid that one rank computes: a rectangle of its points, and the ranks around it.
///
/// The ranks stand in rows and columns so that the borders between them are as short as can be.
class GridBlock {
public:
    enum Side { WEST = 0, EAST = 1, SOUTH = 2, NORTH = 3 };
    static constexpr std::array<Side, 4> SIDES = {WEST, EAST, SOUTH, NORTH};
    static constexpr Side opposite(Side side) { return static_cast<Side>(side ^ 1); }

    /// Points along one axis: the first one and their number.
    struct Range {
        unsigned first;
        unsigned count;
        bool contains(unsigned index) const { return index >= first && index - first < count; }
    };

    /// Cuts a grid of nx by ny points among `ranks` ranks, each of which gets one point at least. Local.
    /// @throw InputError when the grid is too small for that
    GridBlock(unsigned nx, unsigned ny, unsigned ranks, unsigned rank);

    const Range& x() const { return _x; }
    const Range& y() const { return _y; }
    /// Columns of ranks.
    unsigned ranksX() const { return _ranksX; }
    /// Rows of ranks.
    unsigned ranksY() const { return _ranksY; }
    /// Nothing where the grid ends.
    const std::optional<unsigned>& neighbour(Side side) const { return _neighbours[side]; }

private:
    void chooseShape(unsigned nx, unsigned ny, unsigned ranks);

    unsigned _ranksX = 0;
    unsigned _ranksY = 0;
    Range _x{};
    Range _y{};
    std::array<std::optional<unsigned>, 4> _neighbours;
};
