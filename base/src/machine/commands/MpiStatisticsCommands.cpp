#include "machine/commands/MpiStatisticsCommands.h"

#include "machine/MachineGround.h"
#include "machine/MpiStatisticsManager.h"
#include "machine/reports/MpiStressTester.h"

#include "kernel/Command.h"
#include "kernel/Controller.h"
#include "kernel/Error.h"
#include "kernel/Properties.h"
#include "kernel/Raise.h"

#include <string>
#include <vector>

namespace {

class EnableMpiStatistics : public NoResultCommand {
public:
    using NoResultCommand::execute;
    EnableMpiStatistics()
        : NoResultCommand({"Has each rank count and time its messages, or not.",
                           {{"enableFlag", "bool", "on or off"}},
                           {}}) {}
    std::string getName() const override { return "EnableMpiStatistics"; }
    void execute(const Properties& args) override {
        if (args.getBool("enableFlag"))
            MpiStatisticsManager::enable(true);
        else
            MpiStatisticsManager::disable(true);
    }
};

class ReportMpiStatistics : public NoResultCommand {
public:
    using NoResultCommand::execute;
    ReportMpiStatistics()
        : NoResultCommand({"Writes what the ranks have counted since EnableMpiStatistics to a file "
                           "orvexsim+-mpi-<pid>.log. Does nothing while nothing is counted.",
                           {},
                           {}}) {}
    std::string getName() const override { return "ReportMpiStatistics"; }
    void execute(const Properties&) override {
        if (!MpiStatisticsManager::getSingleton().report(
                MpiStatisticsManager::BASE_NAME)) // on all ranks alike
            raise(InputError("Cannot write the log of the MPI statistics"));
    }
};

class PerformPerformanceMpiStressTest : public Command {
public:
    PerformPerformanceMpiStressTest()
        : Command(
              {"Measures time and bandwidth of messages by pattern and length, in a parallel job.",
               {{"nSamples", "unsigned",
                 "repetitions of each pattern, at least 1; 20 by default. Fewer when they take longer than "
                 "0.25 s",
                 false},
                {"messageLengths", "vector of unsigned", "[bytes]; 14 up to 9600000 by default", false},
                {"testNames", "vector of text", "the patterns; all by default", false}},
               {{"Message Lengths", "vector of unsigned", "[bytes]; only in a parallel job", false},
                {"Number Samples", "unsigned", "repetitions; only in a parallel job", false},
                {"Results", "vector of properties",
                 "for each pattern its name, times [s] and bandwidths [bytes/s], the largest real where the "
                 "time isn't above that of 4 bytes; only in a parallel job",
                 false}}}) {}
    std::string getName() const override { return "PerformPerformanceMpiStressTest"; }
    void execute(const Properties& args, Properties& response) override {
        const unsigned nSamples = args.getOr("nSamples", 20u);
        if (nSamples == 0)
            raise(InputError("\"nSamples\" must be at least 1"));
        if (MachineGround::isSerial())
            return;
        const std::vector<unsigned> lengths = args.getOr("messageLengths", DEFAULT_LENGTHS);
        MpiStressTester tester(MachineGround::globalCommunicator(), nSamples, lengths);
        tester.runStressTests(args.getOr("testNames", std::vector<std::string>()), response);
    }

private:
    static inline const std::vector<unsigned> DEFAULT_LENGTHS{
        0, 8, 32, 96, 320, 1000, 3200, 10000, 32000, 100000, 320000, 1000000, 3200000, 9600000};
};

} // namespace

void registerEnableMpiStatistics(Controller& controller) {
    controller.registerCommand(new EnableMpiStatistics);
}

void registerReportMpiStatistics(Controller& controller) {
    controller.registerCommand(new ReportMpiStatistics);
}

void registerMpiStressTest(Controller& controller) {
    controller.registerCommand(new PerformPerformanceMpiStressTest);
}
