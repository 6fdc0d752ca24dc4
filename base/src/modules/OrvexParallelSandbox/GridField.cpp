#include "modules/OrvexParallelSandbox/GridField.h"

#include "machine/Communicator.h"

namespace {

/// Points along a side, and the local place of point k of the border (`outward` 0) or of the rim (`outward`
/// 1).
struct SideLine {
    const GridField& field;
    GridBlock::Side side;
    int outward;

    int size() const {
        return side == GridBlock::WEST || side == GridBlock::EAST ? field.countY() : field.countX();
    }
    std::pair<int, int> operator[](int k) const {
        switch (side) {
        case GridBlock::WEST:
            return {-outward, k};
        case GridBlock::EAST:
            return {field.countX() - 1 + outward, k};
        case GridBlock::SOUTH:
            return {k, -outward};
        case GridBlock::NORTH:
            return {k, field.countY() - 1 + outward};
        }
        return {};
    }
};

/// A message carries the side, seen from its sender.
unsigned tagOf(GridBlock::Side side) {
    return 100u + static_cast<unsigned>(side);
}

} // namespace

GridField::GridField(const GridBlock& block)
    : _countX(static_cast<int>(block.x().count)), _countY(static_cast<int>(block.y().count)),
      _values(static_cast<std::size_t>(_countX + 2) * static_cast<std::size_t>(_countY + 2), 0.0) {}

HaloExchange::HaloExchange(const GridBlock& block, Communicator* communicator)
    : _block(block), _communicator(communicator) {
    for (const GridBlock::Side side : GridBlock::SIDES) {
        if (!_block.neighbour(side))
            continue;
        const bool vertical = side == GridBlock::WEST || side == GridBlock::EAST;
        const std::size_t size = vertical ? _block.y().count : _block.x().count;
        _border[side].resize(size);
        _rim[side].resize(size);
    }
}

void HaloExchange::begin(const GridField& field) {
    for (const GridBlock::Side side : GridBlock::SIDES)
        if (const auto& neighbour = _block.neighbour(side))
            _communicator->iRecv(_rim[side].data(), _rim[side].size(), *neighbour, _requests,
                                 tagOf(GridBlock::opposite(side)));
    for (const GridBlock::Side side : GridBlock::SIDES) {
        const auto& neighbour = _block.neighbour(side);
        if (!neighbour)
            continue;
        const SideLine line{field, side, 0};
        for (int k = 0; k < line.size(); ++k) {
            const auto [i, j] = line[k];
            _border[side][static_cast<std::size_t>(k)] = field.at(i, j);
        }
        _communicator->iSend(_border[side].data(), _border[side].size(), *neighbour, _requests, tagOf(side));
    }
}

void HaloExchange::end(GridField& field) {
    if (_requests.empty())
        return;
    _communicator->wait(_requests);
    for (const GridBlock::Side side : GridBlock::SIDES) {
        if (!_block.neighbour(side))
            continue;
        const SideLine line{field, side, 1};
        for (int k = 0; k < line.size(); ++k) {
            const auto [i, j] = line[k];
            field.at(i, j) = _rim[side][static_cast<std::size_t>(k)];
        }
    }
}
