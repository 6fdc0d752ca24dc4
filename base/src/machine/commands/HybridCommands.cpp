// The commands that run hybrid work and look whether the ranks that take no part sleep; and the test of the
// memory that the ranks of a host share.

#include "machine/commands/HybridCommands.h"

#include "machine/Communicator.h"
#include "machine/GroundLocks.h"
#include "machine/HybridMpiThreadContext.h"
#include "machine/MachineGround.h"
#include "machine/ThreadUtility.h"
#include "machine/commands/ShmemTester.h"
#include "machine/commands/TestCommands.h"

#include "kernel/Command.h"
#include "kernel/Controller.h"
#include "kernel/Properties.h"
#include "kernel/Raise.h"
#include "platform/Time.h"

#include <array>
#include <chrono>
#include <cmath>
#include <cstdint>
#include <iostream>
#include <numeric>
#include <random>
#include <string_view>
#include <vector>

namespace {

constexpr unsigned MAX_ITEMS_PER_CORE = 1u << 20;
constexpr double LONGEST_TIME = 3.6e6; ///< [ms]

/// The arguments that both commands have, checked.
struct PiArguments {
    PiArguments(const Properties& args, double defaultTime)
        : verb(args.getOr("verb", false)), wppt(args.getOr("wppt", 10u)),
          time(args.getOr("time", defaultTime)) {
        if (wppt == 0 || wppt > MAX_ITEMS_PER_CORE)
            raise(InputError("\"wppt\" must be 1 to " + std::to_string(MAX_ITEMS_PER_CORE) + ", but it is " +
                             std::to_string(wppt)));
        if (!(time >= 0.0 && time <= LONGEST_TIME))
            raise(InputError("\"time\" must be 0 to 3600000 ms"));
    }

    bool verb;
    unsigned wppt;
    double time; ///< [ms]
};

void announce(std::string_view scope, double time) {
    if (MachineGround::isMaster())
        std::cout << "Calculating Pi using hybrid MPI/thread mode with " << scope
                  << " scope and a target wall time of " << time << " ms." << std::endl;
}

} // namespace

/// Not in a namespace without a name: the reports tell the names of its classes.
class HybridPi : public Command {
public:
    /// Counts random points in a square and in the circle in it, on all threads, for a given time.
    class CalculatePiWithThreads : public HybridMpiThreadOperation {
    public:
        /// @param wppt  work items for each local core
        /// @param time  [ms]
        CalculatePiWithThreads(bool verb, unsigned wppt, double time)
            : _verb(verb), _wppt(wppt), _time(time) {}

        void run(const HybridMachine& machine) override {
            if (_verb)
                report(machine);
            const std::size_t items = std::size_t{_wppt} * machine.nLocalCore();
            std::vector<std::uint64_t> total(items, 0);
            std::vector<std::uint64_t> inside(items, 0);
            {
                const MachineGround::SerialCritical noMessages;
                ThreadUtility::forEach(items,
                                       [&](std::size_t item) { throwPoints(total[item], inside[item]); });
            }
            std::array<std::uint64_t, 2> sums{std::reduce(total.begin(), total.end()),
                                              std::reduce(inside.begin(), inside.end())};
            const bool isRoot = machine.isSerial() || machine.getCommunicator().myRank() == 0;
            if (machine.isParallel())
                machine.getCommunicator().reduce(sums, Communicator::SUM, Communicator::masterRank());
            if (isRoot)
                std::cout << "Pi = " << 4.0 * static_cast<double>(sums[1]) / static_cast<double>(sums[0])
                          << std::endl;
        }

    private:
        static void report(const HybridMachine& machine) {
            unsigned processes = 1;
            unsigned rank = 0;
            unsigned cores = machine.nLocalCore();
            if (machine.isParallel()) {
                Communicator& ranks = machine.getCommunicator();
                processes = ranks.size();
                rank = ranks.myRank();
                ranks.allReduce(cores, Communicator::SUM);
            }
            std::string number = std::to_string(rank);
            number.insert(0, std::to_string(processes - 1).size() - number.size(), '0');
            std::string lines = "    Hybrid Process #" + number + ": " +
                                std::to_string(machine.nLocalCore()) + " local cores\n";
            if (machine.isParallel()) {
                std::string all;
                std::vector<unsigned> lengths;
                machine.getCommunicator().gatherVector(lines, all, lengths, Communicator::masterRank());
                lines = all;
            }
            if (rank == 0)
                std::cout << "HybridPi HybridMachine Report:\n  Number of Hybrid Processes: " << processes
                          << "\n  Total Number of Cores: " << cores << "\n"
                          << lines << std::flush;
        }

        /// One item of work.
        void throwPoints(std::uint64_t& total, std::uint64_t& inside) const {
            using Clock = std::chrono::high_resolution_clock;
            using Milliseconds = std::chrono::duration<double, std::milli>;
            const Clock::time_point start = Clock::now();
            const auto seed = std::chrono::duration_cast<std::chrono::nanoseconds>(start.time_since_epoch());
            std::mt19937 random(static_cast<std::uint32_t>(seed.count()));
            const auto draw = [&random] { return std::generate_canonical<double, 53>(random); };
            do {
                const double x = draw();
                const double y = draw();
                ++total;
                if (x * x + y * y <= 1.0)
                    ++inside;
            } while (Milliseconds(Clock::now() - start).count() < _time / _wppt);
        }

        bool _verb;
        unsigned _wppt;
        double _time;
    };

    HybridPi()
        : Command({"Computes Pi on few processes with many threads, for each scope in turn. For tests.",
                   {{"verb", "bool", "tell the processes and their cores; false by default", false},
                    {"wppt", "unsigned", "work items for each core; 10 by default", false},
                    {"time", "real", "[ms] of each scope; 1000 by default", false}},
                   {{"pass", "bool", "true"}, {"message", "text", "what was done"}}}) {}
    std::string getName() const override { return "HybridPi"; }
    void execute(const Properties& args, Properties& response) override {
        const PiArguments arguments(args, 1000.0);
        if (MachineGround::isMaster())
            warnOfTestCommand(*this);
        HybridPi::CalculatePiWithThreads operation(arguments.verb, arguments.wppt, arguments.time);
        constexpr std::array<std::pair<MachineGround::ShmemScope, const char*>, 3> scopes{
            {{MachineGround::HOST_SCOPE, "HOST"},
             {MachineGround::SOCKET_SCOPE, "SOCKET"},
             {MachineGround::NUMA_SCOPE, "NUMA"}}};
        for (const auto& [scope, word] : scopes) {
            announce(word, arguments.time);
            HybridMpiThreadContext::execute(scope, operation);
        }
        response.set("pass", true);
        response.set("message", "Successfully used HybridMpiThreadContext to calculate Pi.");
    }
};
namespace {

class TestHybridIdling : public Command {
public:
    TestHybridIdling()
        : Command({"Measures how much processor time the ranks take that take no part in hybrid work. For "
                   "tests.",
                   {{"threshold", "real",
                     "the largest share of a core for each of them, by the time of the work; 0.02 by default",
                     false},
                    {"time", "real", "[ms] of the work; 2000 by default", false},
                    {"verb", "bool", "tell the processes and their cores; false by default", false},
                    {"wppt", "unsigned", "work items for each core; 10 by default", false},
                    {"scope", "text", "\"host\", \"socket\" or \"numa\"; \"host\" by default", false}},
                   {{"pass", "bool", "whether they were below the threshold"},
                    {"message", "text", "what came of it"}}}) {}
    std::string getName() const override { return "TestHybridIdling"; }
    void execute(const Properties& args, Properties& response) override {
        const double threshold = args.getOr("threshold", 0.02);
        const std::string word = args.getOr("scope", std::string(HOST));
        const PiArguments arguments(args, 2000.0);
        warnOfTestCommand(*this);
        const MachineGround::ShmemScope scope = findScope(word);
        announce(word, arguments.time);
        HybridPi::CalculatePiWithThreads operation(arguments.verb, arguments.wppt, arguments.time);
        Platform::ProcessorStamp stamp;
        Platform::time().stampProcessorTime(stamp);
        const double start = Platform::time().getTime();
        HybridMpiThreadContext::execute(scope, operation);
        const double cpu = Platform::time().getElapsedProcessorTime(stamp);
        const double wall = Platform::time().getTime() - start;
        const bool isBusy = MachineGround::isSerial() || MachineGround::hasSparseCommunicator(scope);
        std::array<double, 4> sums =
            isBusy ? std::array{wall, 0.0, 1.0, 0.0} : std::array{0.0, cpu, 0.0, 1.0};
        if (MachineGround::isParallel())
            MachineGround::globalCommunicator().allReduce(sums, Communicator::SUM);
        judge(sums, threshold, response);
    }

private:
    static constexpr const char* HOST = "host";

    static MachineGround::ShmemScope findScope(const std::string& word) {
        if (word == "socket")
            return MachineGround::SOCKET_SCOPE;
        if (word == "numa")
            return MachineGround::NUMA_SCOPE;
        if (word != HOST)
            std::cout << "Invalid scope '" << word << "'! Fallback to '" << HOST << "'." << std::endl;
        return MachineGround::HOST_SCOPE;
    }

    /// @param sums  over the ranks: busy time, idle time, busy ranks, idle ranks
    static void judge(const std::array<double, 4>& sums, double threshold, Properties& response) {
        const auto [busyTime, idleTime, busy, idle] = sums;
        // Without idle ranks there is none that could be too busy.
        const double overhead = idle > 0.0 ? (idleTime / idle) / (busyTime / busy) : 0.0;
        const bool pass = !(overhead > threshold);
        std::cout << (pass ? "Test succeeded: Non-involved CPUs are idle!"
                           : "Test failed: Non-involved CPUs are NOT idle!")
                  << "\nNumber of busy processes: " << busy << "\nNumber of idle processes: " << idle
                  << "\nIdle process overhead: " << overhead * 100.0 << "% (allowed: " << threshold * 100.0
                  << "%)." << std::endl;
        response.set("pass", pass);
        response.set("message", pass ? "Successfully tested hybrid CPU idling." : "CPUs not idling.");
    }
};

class ShmemTest : public Command {
public:
    ShmemTest()
        : Command(
              {"Has each rank print what its host's first rank wrote into memory that they share.", {}, {}}) {
    }
    std::string getName() const override { return "ShmemTest"; }
    void execute(const Properties&, Properties&) override { ShmemTester().runTest(); }
};

[[maybe_unused]] const bool shmemTestIsRegistered = [] {
    Controller::getSingleton().registerCommand(new ShmemTest);
    return true;
}();

} // namespace

void registerHybridPi(Controller& controller) {
    controller.registerCommand(new HybridPi);
}

void registerHybridIdlingTest(Controller& controller) {
    controller.registerCommand(new TestHybridIdling);
}
