#include "modules/OrvexParallelSandbox/GridField.h"

#include "machine/Communicator.h"

namespace {

/// The local place of point k of the border (`outward` 0) or of the rim (`outward` 1) along a side.
struct SideLine {
    const GridField& field;
    GridBlock::Side side;
    int outward;

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

    void read(const GridField& from, std::span<double> values) const {
        for (std::size_t k = 0; k < values.size(); ++k) {
            const auto [i, j] = (*this)[static_cast<int>(k)];
            values[k] = from.at(i, j);
        }
    }
    void write(std::span<const double> values, GridField& to) const {
        for (std::size_t k = 0; k < values.size(); ++k) {
            const auto [i, j] = (*this)[static_cast<int>(k)];
            to.at(i, j) = values[k];
        }
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

void HaloExchange::shareMemory() {
    _shared = std::make_unique<SharedBorders>(_block, *_communicator);
    for (const GridBlock::Side side : GridBlock::SIDES)
        if (isShared(side)) {
            _border[side].clear();
            _rim[side].clear();
        }
}

void HaloExchange::begin(const GridField& field) {
    if (_shared)
        _shared->begin();
    for (const GridBlock::Side side : GridBlock::SIDES)
        if (!_rim[side].empty())
            _communicator->iRecv(_rim[side].data(), _rim[side].size(), *_block.neighbour(side), _requests,
                                 tagOf(GridBlock::opposite(side)));
    for (const GridBlock::Side side : GridBlock::SIDES) {
        const SideLine line{field, side, 0};
        if (isShared(side)) {
            line.read(field, _shared->own(side));
            _shared->publish(side);
        } else if (!_border[side].empty()) {
            line.read(field, _border[side]);
            _communicator->iSend(_border[side].data(), _border[side].size(), *_block.neighbour(side),
                                 _requests, tagOf(side));
        }
    }
}

void HaloExchange::end(GridField& field) {
    for (const GridBlock::Side side : GridBlock::SIDES)
        if (isShared(side))
            SideLine{field, side, 1}.write(_shared->await(side), field);
    if (_requests.empty())
        return;
    _communicator->wait(_requests);
    for (const GridBlock::Side side : GridBlock::SIDES)
        if (!_rim[side].empty())
            SideLine{field, side, 1}.write(_rim[side], field);
}
