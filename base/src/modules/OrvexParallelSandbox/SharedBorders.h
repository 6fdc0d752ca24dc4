#pragma once

#include "modules/OrvexParallelSandbox/GridBlock.h"

#include "machine/ShmemWindow.h"

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <vector>

class Communicator;

/// The borders of the blocks of one host, in memory that its ranks share: a rank writes its own and reads its
/// neighbours', with no message.
///
/// Each border has two places, which take turns. A rank writes the border of step n + 2 into the place of
/// step n, and by then its neighbour has read that: it has published step n + 1. So one counter for each
/// border is all that two ranks need.
///
/// Made and destroyed by all ranks of the grid together; begin() and find() are local.
class SharedBorders {
public:
    /// @param ranks  those of the grid; some of them are on this host
    SharedBorders(const GridBlock& block, Communicator& ranks);

    /// Whether the neighbour at this side is on this host.
    bool has(GridBlock::Side side) const { return _neighbours[side].has_value(); }
    /// The next step begins.
    void begin() { ++_step; }
    /// The place for this rank's border of the step.
    std::span<double> own(GridBlock::Side side);
    /// Lets the neighbour read that place.
    void publish(GridBlock::Side side);
    /// The neighbour's border of the step. Waits for it.
    std::span<const double> await(GridBlock::Side side);

private:
    static constexpr std::size_t LINE = 8; ///< counters of a cache line

    std::span<double> place(unsigned hostRank, GridBlock::Side side);
    std::uint64_t& counter(unsigned hostRank, GridBlock::Side side);

    unsigned _me;
    std::array<std::optional<unsigned>, 4> _neighbours; ///< by side; their ranks in the host's communicator
    std::array<std::size_t, 4> _sizes{};                ///< points, by side
    std::size_t _room;                                  ///< points of the longest border on this host
    ShmemWindow<double> _values;
    ShmemWindow<std::uint64_t> _counters; ///< the steps that are published
    std::uint64_t _step = 0;
};
