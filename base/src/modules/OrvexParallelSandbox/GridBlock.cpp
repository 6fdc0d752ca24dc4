#include "modules/OrvexParallelSandbox/GridBlock.h"

#include "kernel/Raise.h"

#include <algorithm>
#include <string>

namespace {

/// Part `index` of `count` points in `parts` parts that differ by one point at most.
GridBlock::Range cut(unsigned count, unsigned parts, unsigned index) {
    const unsigned size = count / parts;
    const unsigned larger = count % parts;
    return {index * size + std::min(index, larger), size + (index < larger ? 1 : 0)};
}

} // namespace

GridBlock::GridBlock(unsigned nx, unsigned ny, unsigned ranks, unsigned rank) {
    chooseShape(nx, ny, ranks);
    const unsigned column = rank % _ranksX;
    const unsigned row = rank / _ranksX;
    _x = cut(nx, _ranksX, column);
    _y = cut(ny, _ranksY, row);
    if (column > 0)
        _neighbours[WEST] = rank - 1;
    if (column + 1 < _ranksX)
        _neighbours[EAST] = rank + 1;
    if (row > 0)
        _neighbours[SOUTH] = rank - _ranksX;
    if (row + 1 < _ranksY)
        _neighbours[NORTH] = rank + _ranksX;
}

void GridBlock::chooseShape(unsigned nx, unsigned ny, unsigned ranks) {
    unsigned long long shortest = 0;
    for (unsigned columns = 1; columns <= ranks; ++columns) {
        const unsigned rows = ranks / columns;
        if (ranks % columns != 0 || columns > nx || rows > ny)
            continue;
        const unsigned long long border = (columns - 1ULL) * ny + (rows - 1ULL) * nx;
        if (_ranksX != 0 && border >= shortest)
            continue;
        shortest = border;
        _ranksX = columns;
        _ranksY = rows;
    }
    if (_ranksX == 0)
        raise(InputError("A grid of " + std::to_string(nx) + " by " + std::to_string(ny) +
                         " points can't be cut into " + std::to_string(ranks) +
                         " blocks, one for each rank: give it more points"));
}
