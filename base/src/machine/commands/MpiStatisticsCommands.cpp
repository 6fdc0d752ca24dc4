#include "machine/commands/MpiStatisticsCommands.h"

#include "machine/MpiStatisticsManager.h"

#include "kernel/Command.h"
#include "kernel/Controller.h"
#include "kernel/Error.h"
#include "kernel/Properties.h"
#include "kernel/Raise.h"

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

} // namespace

void registerEnableMpiStatistics(Controller& controller) {
    controller.registerCommand(new EnableMpiStatistics);
}

void registerReportMpiStatistics(Controller& controller) {
    controller.registerCommand(new ReportMpiStatistics);
}
