#include "modules/OrvexParallelSandbox/HeatConduction.h"

#include "machine/Communicator.h"
#include "machine/ThreadUtility.h"

#include "kernel/EventTracker.h"

#include <algorithm>
#include <array>
#include <chrono>
#include <cmath>
#include <limits>
#include <numbers>

namespace {

constexpr const char* CLASS = "HeatConduction"; ///< of its events

class Stopwatch {
public:
    double seconds() const {
        return std::chrono::duration<double>(std::chrono::steady_clock::now() - _start).count();
    }

private:
    std::chrono::steady_clock::time_point _start = std::chrono::steady_clock::now();
};

/// Adds the time of a scope to a total. [s]
class TimedScope {
public:
    explicit TimedScope(double& total) : _total(total) {}
    ~TimedScope() { _total += _stopwatch.seconds(); }
    TimedScope(const TimedScope&) = delete;
    TimedScope& operator=(const TimedScope&) = delete;

private:
    double& _total;
    Stopwatch _stopwatch;
};

/// How much of the middle of the plate's value the point `index` of `count` holds, along one axis.
double centreWeight(unsigned index, unsigned count) {
    const unsigned lower = (count - 1) / 2;
    const unsigned upper = count / 2;
    return 0.5 * ((index == lower ? 1.0 : 0.0) + (index == upper ? 1.0 : 0.0));
}

} // namespace

/// Sums for the result, over the points of a rank and then over the ranks.
struct HeatConduction::Totals {
    double residualSquare = 0.0;
    double centre = 0.0;
    double sum = 0.0;
    double heatOut = 0.0;
    double maximum = 0.0; ///< not a sum
};

HeatConduction::HeatConduction(unsigned nx, unsigned ny, Communicator* communicator, unsigned threads)
    : _nx(nx), _ny(ny), _hx(1.0 / (nx + 1.0)), _hy(1.0 / (ny + 1.0)), _communicator(communicator),
      _block(nx, ny, communicator ? communicator->size() : 1, communicator ? communicator->myRank() : 0),
      _halo(_block, communicator), _threads(threads), _u(_block), _residual(_block), _residualProduct(_block),
      _direction(_block), _directionProduct(_block) {
    for (int j = 0; j < _residual.countY(); ++j)
        std::fill_n(_residual.row(j), _residual.countX(), 1.0);
}

void HeatConduction::shareMemory() {
    if (_communicator)
        _halo.shareMemory();
}

template <class Operation>
void HeatConduction::forRows(const Operation& operation) const {
    const int rows = _u.countY();
    if (_threads == 1)
        return operation(0, rows, std::size_t{0});
    ThreadUtility::forEach(_threads, [&](std::size_t part) {
        const auto cut = [&](std::size_t i) {
            return static_cast<int>(i * static_cast<std::size_t>(rows) / _threads);
        };
        operation(cut(part), cut(part + 1), part);
    });
}

/// The scalar products of this rank's points: `a` with itself and with `b`. The sum has the same order in
/// each run.
std::array<double, 2> HeatConduction::products(const GridField& a, const GridField& b) const {
    std::vector<std::array<double, 2>> parts(_threads);
    forRows([&](int first, int end, std::size_t part) {
        double aa = 0.0;
        double ab = 0.0;
        for (int j = first; j < end; ++j) {
            const double* const rowA = a.row(j);
            const double* const rowB = b.row(j);
            for (int i = 0; i < a.countX(); ++i) {
                aa += rowA[i] * rowA[i];
                ab += rowA[i] * rowB[i];
            }
        }
        parts[part] = {aa, ab};
    });
    std::array<double, 2> sums{};
    for (const auto& [aa, ab] : parts) {
        sums[0] += aa;
        sums[1] += ab;
    }
    return sums;
}

/// to = from + factor * to
void HeatConduction::scaleAndAdd(const GridField& from, double factor, GridField& to) const {
    forRows([&](int first, int end, std::size_t) {
        for (int j = first; j < end; ++j) {
            const double* const source = from.row(j);
            double* const target = to.row(j);
            for (int i = 0; i < to.countX(); ++i)
                target[i] = source[i] + factor * target[i];
        }
    });
}

/// to += factor * from
void HeatConduction::addScaled(const GridField& from, double factor, GridField& to) const {
    forRows([&](int first, int end, std::size_t) {
        for (int j = first; j < end; ++j) {
            const double* const source = from.row(j);
            double* const target = to.row(j);
            for (int i = 0; i < to.countX(); ++i)
                target[i] += factor * source[i];
        }
    });
}

HeatConduction::Result HeatConduction::solve(double tolerance, unsigned maxIterations,
                                             const Watcher& watcher) {
    advance(tolerance, maxIterations, std::numeric_limits<unsigned>::max(), watcher);
    return getResult();
}

bool HeatConduction::advance(double tolerance, unsigned maxIterations, unsigned steps,
                             const Watcher& watcher) {
    const TimedScope timed(_result.wallTime);
    const EventTracker::Track track(CLASS, "advance");
    const double sourceNorm = std::sqrt(static_cast<double>(_nx) * _ny);
    for (unsigned done = 0; done < steps; ++done) {
        multiply(_residual, _residualProduct);
        std::array<double, 2> sums = products(_residual, _residualProduct);
        addUp(sums);
        const auto [square, product] = sums;

        const double residual = std::sqrt(square) / sourceNorm;
        _result.converged = residual <= tolerance;
        if (_result.converged || _result.iterations == maxIterations)
            return true;
        watcher(_result.iterations, residual);

        const double conjugation = _result.iterations == 0 ? 0.0 : square / _oldSquare;
        const double step =
            square / (_result.iterations == 0 ? product : product - conjugation * square / _oldStep);
        const EventTracker::Track updating(CLASS, "update");
        scaleAndAdd(_residual, conjugation, _direction);
        scaleAndAdd(_residualProduct, conjugation, _directionProduct);
        addScaled(_direction, step, _u);
        addScaled(_directionProduct, -step, _residual);
        _oldSquare = square;
        _oldStep = step;
        ++_result.iterations;
    }
    return false;
}

HeatConduction::Result HeatConduction::getResult() {
    _result.communicationTime = _communicationTime;
    measure(_result);
    return _result;
}

void HeatConduction::multiply(GridField& in, GridField& out) {
    const EventTracker::Track track(CLASS, "multiply");
    const int lastX = in.countX() - 1;
    const int lastY = in.countY() - 1;
    {
        const TimedScope communication(_communicationTime);
        const EventTracker::Track exchange(CLASS, "exchangeBorders");
        _halo.begin(in);
    }
    forRows([&](int first, int end, std::size_t) {
        for (int j = std::max(first, 1); j < std::min(end, lastY); ++j)
            multiplyRow(in, out, j, 1, lastX);
    });
    {
        const TimedScope communication(_communicationTime);
        const EventTracker::Track exchange(CLASS, "exchangeBorders");
        _halo.end(in);
    }
    for (int j = 1; j < lastY; ++j) {
        multiplyRow(in, out, j, 0, 1);
        if (lastX > 0)
            multiplyRow(in, out, j, lastX, lastX + 1);
    }
    multiplyRow(in, out, 0, 0, in.countX());
    if (lastY > 0)
        multiplyRow(in, out, lastY, 0, in.countX());
}

void HeatConduction::multiplyRow(const GridField& in, GridField& out, int j, int begin, int end) const {
    const double weightX = 1.0 / (_hx * _hx);
    const double weightY = 1.0 / (_hy * _hy);
    const double* const centre = in.row(j);
    const double* const south = in.row(j - 1);
    const double* const north = in.row(j + 1);
    double* const product = out.row(j);
    for (int i = begin; i < end; ++i)
        product[i] = weightX * (2.0 * centre[i] - centre[i - 1] - centre[i + 1]) +
                     weightY * (2.0 * centre[i] - south[i] - north[i]);
}

void HeatConduction::measure(Result& result) {
    multiply(_u, _residualProduct);
    const Totals totals = sumUp(_residualProduct);
    std::array<double, 4> sums{totals.residualSquare, totals.centre, totals.sum, totals.heatOut};
    addUp(sums);
    std::array<double, 3> maxima{totals.maximum, result.wallTime, result.communicationTime};
    if (_communicator)
        _communicator->allReduce(maxima, Communicator::MAX);

    const double points = static_cast<double>(_nx) * _ny;
    const double heatIn = points * _hx * _hy;
    result.residual = std::sqrt(sums[0] / points);
    result.centre = sums[1];
    result.mean = sums[2] * _hx * _hy;
    result.heatImbalance = std::abs(sums[3] - heatIn) / heatIn;
    result.maximum = maxima[0];
    result.wallTime = maxima[1];
    result.communicationTime = maxima[2];
}

HeatConduction::Totals HeatConduction::sumUp(const GridField& product) const {
    Totals totals;
    for (int j = 0; j < _u.countY(); ++j) {
        const unsigned y = _block.y().first + static_cast<unsigned>(j);
        const double edgesY = (y == 0 ? 1.0 : 0.0) + (y + 1 == _ny ? 1.0 : 0.0);
        for (int i = 0; i < _u.countX(); ++i) {
            const unsigned x = _block.x().first + static_cast<unsigned>(i);
            const double edgesX = (x == 0 ? 1.0 : 0.0) + (x + 1 == _nx ? 1.0 : 0.0);
            const double u = _u.at(i, j);
            const double residual = 1.0 - product.at(i, j);
            totals.residualSquare += residual * residual;
            totals.centre += centreWeight(x, _nx) * centreWeight(y, _ny) * u;
            totals.sum += u;
            totals.heatOut += u * (edgesX * _hy / _hx + edgesY * _hx / _hy);
            totals.maximum = std::max(totals.maximum, u);
        }
    }
    return totals;
}

template <class V>
void HeatConduction::addUp(V& values) {
    const EventTracker::Track track(CLASS, "addUp");
    if (!_communicator)
        return;
    const TimedScope communication(_communicationTime);
    _communicator->allReduce(values, Communicator::SUM);
}

double HeatConduction::exactCentre() {
    constexpr int LAST_TERM = 31; // its size is below 1e-25
    double centre = 0.125;
    double sign = 1.0;
    for (int n = 1; n <= LAST_TERM; n += 2, sign = -sign)
        centre -= sign * 4.0 / (std::pow(n * std::numbers::pi, 3) * std::cosh(n * std::numbers::pi / 2));
    return centre;
}
