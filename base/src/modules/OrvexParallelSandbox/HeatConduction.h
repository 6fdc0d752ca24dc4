#pragma once

#include "modules/OrvexParallelSandbox/GridBlock.h"
#include "modules/OrvexParallelSandbox/GridField.h"

#include <array>
#include <functional>
#include <vector>

class Communicator;

/// Steady heat conduction in a square plate of side 1 that is heated evenly inside and cooled at its edges,
/// by finite differences: -laplace(u) = 1 inside, u = 0 at the edges.
///
/// Conjugate gradients, each rank on its block of the grid: an iteration costs one exchange with the
/// neighbours, hidden behind the inner points, and one reduction. Collective over the ranks of the grid. Main
/// thread.
class HeatConduction {
public:
    struct Result {
        unsigned iterations = 0;
        bool converged = false;
        double residual = 0.0; ///< norm of the true residual over that of the right-hand side
        double centre = 0.0;   ///< u in the middle of the plate
        double mean = 0.0;     ///< of u over the plate
        double maximum = 0.0;  ///< of u
        double heatImbalance =
            0.0;               ///< of the heat that the edges let out, relative to the heat that comes in
        double wallTime = 0.0; ///< [s] of the iterations, on the slowest rank
        double communicationTime = 0.0; ///< [s] of it in messages, on the rank with the most
    };
    /// Told the iteration and the relative residual, on all ranks in the same iteration. It ends the work by
    /// an error that it throws on all of them.
    using Watcher = std::function<void(unsigned iteration, double residual)>;

    /// @param nx, ny        inner points along x and y
    /// @param communicator  the ranks of the grid; null for a process alone
    /// @param threads       of each rank: above 1 inside a hybrid context only
    /// @throw InputError on all ranks when the grid has fewer points than ranks along an axis
    HeatConduction(unsigned nx, unsigned ny, Communicator* communicator, unsigned threads = 1);
    /// Ranks of one host give their borders to each other by memory that they share. Before the solution.
    void shareMemory();

    const GridBlock& getBlock() const { return _block; }
    /// Solves from u = 0 until the residual is down to `tolerance` or `maxIterations` are done. Once.
    Result solve(double tolerance, unsigned maxIterations, const Watcher& watcher);
    /// The same in parts: goes on by at most `steps` iterations. @return whether it is done
    bool advance(double tolerance, unsigned maxIterations, unsigned steps, const Watcher& watcher);
    /// The solution and its cost, when it is done.
    Result getResult();
    /// u in the middle of the plate as the exact solution has it.
    static double exactCentre();

private:
    struct Totals;

    /// Calls `operation(first, end, part)` for parts of this rank's rows, one for each thread.
    template <class Operation>
    void forRows(const Operation& operation) const;
    std::array<double, 2> products(const GridField& a, const GridField& b) const;
    void scaleAndAdd(const GridField& from, double factor, GridField& to) const;
    void addScaled(const GridField& from, double factor, GridField& to) const;
    void multiply(GridField& in, GridField& out);
    void multiplyRow(const GridField& in, GridField& out, int j, int begin, int end) const;
    void measure(Result& result);
    Totals sumUp(const GridField& product) const;
    template <class V>
    void addUp(V& values);

    unsigned _nx;
    unsigned _ny;
    double _hx; ///< distance of two points
    double _hy;
    Communicator* _communicator;
    GridBlock _block;
    HaloExchange _halo;
    unsigned _threads;
    Result _result = {};
    double _oldSquare = 0.0; ///< of the iteration before
    double _oldStep = 0.0;
    double _communicationTime = 0.0;
    GridField _u;
    GridField _residual;
    GridField _residualProduct;
    GridField _direction;
    GridField _directionProduct;
};
