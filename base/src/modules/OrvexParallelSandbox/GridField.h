#pragma once

#include "modules/OrvexParallelSandbox/GridBlock.h"
#include "modules/OrvexParallelSandbox/SharedBorders.h"

#include "machine/RequestStack.h"

#include <array>
#include <cstddef>
#include <memory>
#include <vector>

class Communicator;

/// One value for each point of a block, with a rim of one point all around for the neighbours' values. The
/// rim stays 0 where the grid ends.
class GridField {
public:
    explicit GridField(const GridBlock& block);

    /// Local indices: -1 is the rim in the west or south.
    double& at(int i, int j) { return _values[index(i, j)]; }
    double at(int i, int j) const { return _values[index(i, j)]; }
    /// The first inner point of row j.
    double* row(int j) { return &_values[index(0, j)]; }
    const double* row(int j) const { return &_values[index(0, j)]; }
    int countX() const { return _countX; }
    int countY() const { return _countY; }
    /// From one row to the next.
    std::ptrdiff_t stride() const { return _countX + 2; }

private:
    std::size_t index(int i, int j) const { return static_cast<std::size_t>((j + 1) * stride() + i + 1); }

    int _countX;
    int _countY;
    std::vector<double> _values;
};

/// Brings the neighbours' border values into the rim of a field. Collective over the ranks of the grid.
class HaloExchange {
public:
    /// @param communicator  null for a grid on one rank
    HaloExchange(const GridBlock& block, Communicator* communicator);
    /// From here on ranks of one host read each other's borders in memory that they share. In a parallel job.
    void shareMemory();

    /// Sends the border of `field` and starts to receive its rim; its inner points may be read meanwhile.
    void begin(const GridField& field);
    /// Returns when the rim of `field`, the same one, is there.
    void end(GridField& field);

private:
    bool isShared(GridBlock::Side side) const { return _shared && _shared->has(side); }

    const GridBlock& _block;
    Communicator* _communicator;
    std::unique_ptr<SharedBorders> _shared; ///< null when all goes by messages
    MpiCore::RequestStack _requests;
    std::array<std::vector<double>, 4> _border; ///< by side
    std::array<std::vector<double>, 4> _rim;    ///< by side
};
