#include "machine/commands/SystemMonitorCommands.h"

#include "machine/Machine.h"

#include "kernel/Command.h"
#include "kernel/Controller.h"
#include "kernel/Properties.h"

#include <string>

namespace {

class EnableSystemMonitor : public Command {
public:
    EnableSystemMonitor()
        : Command({"Starts to record the memory of all processes, or stops and writes it to a CSV file.",
                   {{"enable", "bool", "start or stop"},
                    {"samplingfrequency", "real", "[samples/s] 0.001 to 1000; 50 by default", false}},
                   {}}) {}
    std::string getName() const override { return "EnableSystemMonitor"; }
    void execute(const Properties& args, Properties&) override {
        const double frequency = args.getOr("samplingfrequency", 50.0);
        Machine::enableSystemMonitor(args.getBool("enable"), static_cast<float>(frequency));
    }
};

} // namespace

void registerSystemMonitorCommands(Controller& controller) {
    controller.registerCommand(new EnableSystemMonitor);
}
