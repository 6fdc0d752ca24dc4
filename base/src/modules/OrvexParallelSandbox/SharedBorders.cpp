#include "modules/OrvexParallelSandbox/SharedBorders.h"

#include "machine/Communicator.h"
#include "machine/Machine.h"

#include <algorithm>

namespace {

Communicator& getHostRanks() {
    return Machine::sharedMemCommunicator(Machine::HOST_SCOPE);
}

/// Collective over the host.
std::size_t findLongest(const GridBlock& block) {
    std::size_t longest = std::max(block.x().count, block.y().count);
    getHostRanks().allReduce(longest, Communicator::MAX);
    return longest;
}

} // namespace

SharedBorders::SharedBorders(const GridBlock& block, Communicator& ranks)
    : _me(getHostRanks().myRank()), _room(findLongest(block)),
      _values(ShmemWindow<double>::OwnCount{2 * GridBlock::SIDES.size() * _room}, getHostRanks()),
      _counters(ShmemWindow<std::uint64_t>::OwnCount{GridBlock::SIDES.size() * LINE}, getHostRanks()) {
    std::vector<unsigned> hostRanks;
    getHostRanks().allGather(ranks.myRank(), hostRanks);
    for (const GridBlock::Side side : GridBlock::SIDES) {
        const bool vertical = side == GridBlock::WEST || side == GridBlock::EAST;
        _sizes[side] = vertical ? block.y().count : block.x().count;
        const auto& neighbour = block.neighbour(side);
        const auto found = neighbour ? std::ranges::find(hostRanks, *neighbour) : hostRanks.end();
        if (found != hostRanks.end())
            _neighbours[side] = static_cast<unsigned>(found - hostRanks.begin());
    }
    std::ranges::fill(_counters.ownShare(), std::uint64_t{0});
    _counters.fence();
}

std::span<double> SharedBorders::own(GridBlock::Side side) {
    return place(_me, side);
}

void SharedBorders::publish(GridBlock::Side side) {
    _counters.raiseCounter(counter(_me, side), _step);
}

std::span<const double> SharedBorders::await(GridBlock::Side side) {
    const GridBlock::Side opposite = GridBlock::opposite(side);
    const unsigned neighbour = *_neighbours[side];
    _counters.awaitCounter(counter(neighbour, opposite), _step, neighbour);
    return place(neighbour, opposite);
}

std::span<double> SharedBorders::place(unsigned hostRank, GridBlock::Side side) {
    return _values.share(hostRank).subspan((2 * side + _step % 2) * _room, _sizes[side]);
}

std::uint64_t& SharedBorders::counter(unsigned hostRank, GridBlock::Side side) {
    return _counters.share(hostRank)[side * LINE];
}
