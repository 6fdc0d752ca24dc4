#include "modules/OrvexParallelSandbox/SolveHeatConduction.h"

#include "modules/OrvexParallelSandbox/HeatConduction.h"

#include "kernel/Properties.h"
#include "kernel/Raise.h"
#include "kernel/Task.h"
#include "machine/Communicator.h"
#include "machine/GlobalErrorCheck.h"
#include "machine/HybridMpiThreadContext.h"
#include "machine/Machine.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <iostream>
#include <new>
#include <optional>
#include <sstream>

namespace {

/// A point takes five values of 8 bytes. [points]
constexpr unsigned long long MAX_POINTS = 1ULL << 24;
constexpr unsigned MAX_POINTS_ALONG_AXIS = 1u << 16;

/// The arguments, checked.
struct Input {
    unsigned nx = 128;
    unsigned ny = 128;
    double source = 1.0;
    double conductivity = 1.0;
    double wallTemperature = 0.0;
    double tolerance = 1e-10;
    unsigned maxIterations = 0; ///< 0: ten times the points along both axes
    unsigned reportInterval = 50;
    bool hybrid = false;
    bool sharesMemory = false;

    explicit Input(const Properties& args) {
        read(args, "nx", nx);
        read(args, "ny", ny);
        read(args, "source", source);
        read(args, "conductivity", conductivity);
        read(args, "wallTemperature", wallTemperature);
        read(args, "tolerance", tolerance);
        read(args, "maxIterations", maxIterations);
        read(args, "reportInterval", reportInterval);
        read(args, "hybrid", hybrid);
        std::string way = MESSAGES;
        read(args, "halo", way);
        demand(way == MESSAGES || way == WINDOW, "halo", way, "\"messages\" or \"window\"");
        sharesMemory = way == WINDOW;
        demand(!hybrid || way == MESSAGES, "halo", way, "\"messages\" in hybrid mode");
        check();
        if (maxIterations == 0)
            maxIterations = 10 * (nx + ny);
    }

private:
    static constexpr const char* MESSAGES = "messages";
    static constexpr const char* WINDOW = "window";

    template <class V>
    static void read(const Properties& args, const char* key, V& value) {
        value = args.getOr(key, value);
    }

    template <class V>
    static void demand(bool condition, const char* key, V value, const std::string& expected) {
        if (condition)
            return;
        std::ostringstream message;
        message << '"' << key << "\" must be " << expected << ", but it is " << value;
        raise(InputError(message.str()));
    }

    void check() const {
        const std::string range = "from 1 to " + std::to_string(MAX_POINTS_ALONG_AXIS);
        demand(nx >= 1 && nx <= MAX_POINTS_ALONG_AXIS, "nx", nx, range);
        demand(ny >= 1 && ny <= MAX_POINTS_ALONG_AXIS, "ny", ny, range);
        const unsigned long long points = static_cast<unsigned long long>(nx) * ny;
        demand(points <= MAX_POINTS, "nx * ny", points, "at most " + std::to_string(MAX_POINTS));
        demand(std::isfinite(source), "source", source, "finite");
        demand(std::isfinite(conductivity) && conductivity > 0.0, "conductivity", conductivity,
               "finite and above 0");
        demand(std::isfinite(wallTemperature), "wallTemperature", wallTemperature, "finite");
        demand(tolerance > 0.0 && tolerance < 1.0, "tolerance", tolerance, "between 0 and 1");
    }
};

/// Shows the progress on the master's console and to the clients that watch the task; ends when they cancel.
class Progress {
public:
    Progress(const Input& input) : _input(input), _task("SolveHeatConduction") {}

    /// Collective, see Task::advance().
    void tell(unsigned iteration, double residual) {
        if (_input.reportInterval != 0 && iteration >= _nextLine) {
            print(iteration, residual);
            _nextLine = (iteration / _input.reportInterval + 1) * _input.reportInterval;
        }
        // The residual rises now and then; the progress that was told doesn't fall.
        _furthest = std::max(_furthest, std::log(residual) / std::log(_input.tolerance));
        _task.advance(_furthest);
    }

private:
    static void print(unsigned iteration, double residual) {
        if (Machine::isSerialOrMaster())
            std::cout << "SolveHeatConduction: iteration " << iteration << ", residual " << residual
                      << std::endl;
    }

    const Input& _input;
    Task _task;
    unsigned _nextLine = 0; ///< iteration
    double _furthest = 0.0; ///< fraction of the way
};

void answer(const Input& input, const GridBlock& block, const HeatConduction::Result& result,
            Properties& response) {
    const double scale = input.source / input.conductivity;
    const auto temperature = [&](double u) { return input.wallTemperature + scale * u; };
    response.set("ranks", Machine::nProcesses());
    response.set("processGrid", std::vector<unsigned>{block.ranksX(), block.ranksY()});
    response.set("converged", result.converged);
    response.set("iterations", result.iterations);
    response.set("residual", result.residual);
    response.set("centreTemperature", temperature(result.centre));
    response.set("exactCentreTemperature", temperature(HeatConduction::exactCentre()));
    response.set("error", std::abs(result.centre / HeatConduction::exactCentre() - 1.0));
    response.set("meanTemperature", temperature(result.mean));
    response.set("extremeTemperature", temperature(result.maximum));
    response.set("heatImbalance", result.heatImbalance);
    response.set("wallTime", result.wallTime);
    response.set("communicationTime", result.communicationTime);
    response.set("timePerIteration", result.wallTime / std::max(result.iterations, 1u));
}

/// The plate on the ranks that have a part of it. Collective over the job.
std::optional<HeatConduction> makePlate(const Input& input, bool takesPart, Communicator* ranks,
                                        unsigned threads) {
    std::optional<HeatConduction> plate;
    try {
        if (takesPart)
            plate.emplace(input.nx, input.ny, ranks, threads);
    } catch (const std::bad_alloc&) {
        plate.reset();
    }
    ORVEX_GLOBAL_CHECK(plate.has_value() || !takesPart, GlobalCondition::ON_ALL,
                       SystemError("There isn't enough memory for a grid of " + std::to_string(input.nx) +
                                   " by " + std::to_string(input.ny) + " points"));
    if (input.sharesMemory)
        plate->shareMemory();
    return plate;
}

void solvePlainly(const Input& input, Progress& progress, Properties& response) {
    Communicator* const ranks = Machine::isParallel() ? &Machine::globalCommunicator() : nullptr;
    std::optional<HeatConduction> plate = makePlate(input, true, ranks, 1);
    const HeatConduction::Result result =
        plate->solve(input.tolerance, input.maxIterations,
                     [&](unsigned iteration, double residual) { progress.tell(iteration, residual); });
    answer(input, plate->getBlock(), result, response);
}

/// One process of each host has a part of the grid, and as many threads as the host has ranks. All ranks
/// come together now and then, to tell of the progress and to hear of a cancellation.
void solveHybrid(const Input& input, Progress& progress, Properties& response) {
    constexpr Machine::ShmemScope SCOPE = Machine::HOST_SCOPE;
    constexpr unsigned STEPS = 25; // of a context
    Communicator* const hosts = Machine::isParallel() ? Machine::hasSparseCommunicator(SCOPE) : nullptr;
    const bool takesPart = Machine::isSerial() || hosts;
    std::optional<HeatConduction> plate = makePlate(
        input, takesPart, hosts && hosts->size() > 1 ? hosts : nullptr, HybridMachine(SCOPE).nLocalCore());
    std::array<double, 3> state{1.0, 0.0, 0.0};
    auto& [residual, iteration, isDone] = state;
    while (isDone == 0.0) {
        HybridMpiThreadContext::execute(SCOPE, "HeatConduction::advance", [&](const HybridMachine&) {
            const auto note = [&state](unsigned iterationNow, double residualNow) {
                state[0] = residualNow;
                state[1] = iterationNow;
            };
            state[2] = plate->advance(input.tolerance, input.maxIterations, STEPS, note) ? 1.0 : 0.0;
        });
        if (Machine::isParallel())
            Machine::globalCommunicator().broadcast(state, Communicator::masterRank());
        progress.tell(static_cast<unsigned>(iteration), residual);
    }
    HybridMpiThreadContext::execute(
        SCOPE, [&](const HybridMachine&) { answer(input, plate->getBlock(), plate->getResult(), response); });
}

} // namespace

SolveHeatConduction::SolveHeatConduction()
    : QueryCommand(
          {"Solves the steady heat conduction in a square plate of side 1, heated evenly inside and cooled "
           "at its edges, "
           "with the grid cut among all ranks.",
           {{"nx", "unsigned", "points inside along x; 128 by default", false},
            {"ny", "unsigned", "points inside along y; 128 by default", false},
            {"source", "real", "heat that comes in, per area and time; 1 by default", false},
            {"conductivity", "real", "heat conductivity, above 0; 1 by default", false},
            {"wallTemperature", "real", "temperature of the edges; 0 by default", false},
            {"tolerance", "real", "relative residual to reach, between 0 and 1; 1e-10 by default", false},
            {"maxIterations", "unsigned", "when to give up; 0, the default: 10 (nx + ny)", false},
            {"reportInterval", "unsigned", "iterations between two lines of progress, 0: none; 50 by default",
             false},
            {"hybrid", "bool",
             "one process with threads for each host in place of the ranks; false by default", false},
            {"halo", "text",
             "how ranks of one host give their borders to each other: \"messages\", the default, or "
             "\"window\", by memory that they share",
             false}},
           {{"ranks", "unsigned", "ranks at work"},
            {"processGrid", "vector of unsigned", "columns and rows of ranks"},
            {"converged", "bool", "whether the tolerance was reached"},
            {"iterations", "unsigned", "iterations done"},
            {"residual", "real", "relative residual, computed anew from the solution"},
            {"centreTemperature", "real", "in the middle of the plate"},
            {"exactCentreTemperature", "real", "the same from the exact solution"},
            {"error", "real", "relative error of the temperature rise in the middle of the plate"},
            {"meanTemperature", "real", "over the plate"},
            {"extremeTemperature", "real", "farthest from that of the edges"},
            {"heatImbalance", "real", "difference of heat out and heat in, relative to heat in"},
            {"wallTime", "real", "[s] of the iterations, on the slowest rank"},
            {"communicationTime", "real", "[s] of it in messages, on the rank with the most"},
            {"timePerIteration", "real", "[s]"}}}) {}

void SolveHeatConduction::execute(const Properties& args, Properties& response) {
    const Input input(args);
    Progress progress(input);
    if (input.hybrid)
        solveHybrid(input, progress, response);
    else
        solvePlainly(input, progress, response);
}
