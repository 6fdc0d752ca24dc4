#include "machine/commands/TestCommands.h"

#include "machine/Affinity.h"
#include "machine/AffinityRelaxer.h"
#include "machine/CpuTopology.h"
#include "machine/GlobalCondition.h"
#include "machine/MachineGround.h"
#include "machine/MachineHost.h"

#include "kernel/Command.h"
#include "kernel/Controller.h"
#include "kernel/Properties.h"

#include <iostream>
#include <memory>
#include <string>

namespace {

class RelaxAffinity : public Command {
public:
    RelaxAffinity()
        : Command(
              {"Lets the processes of a host run on each other's processors and takes that back. For tests.",
               {},
               {{"pass", "bool", "whether both worked"}, {"message", "text", "what came of it"}}}) {}
    std::string getName() const override { return "RelaxAffinity"; }
    void execute(const Properties&, Properties& response) override {
        warnOfTestCommand(*this);
        const char* const failure = findFailure();
        response.set("pass", failure == nullptr);
        response.set("message", failure ? failure : "Successfully relaxed and restored process affinity.");
    }

private:
    static const char* findFailure() {
        const CpuTopology& topology = MachineGround::getHost().getCpuTopology();
        const AffinityMask original = Affinity::getProcessAffinity(topology);
        // To relax is collective: when one rank has nothing to begin with, none begins.
        if (GlobalCondition(original.empty(), GlobalCondition::ON_ANY))
            return "Unable to get process affinity before applying relaxation.";
        auto relaxer = std::make_unique<AffinityRelaxer>(MachineGround::HOST_SCOPE, AffinityRelaxer::Key());
        const AffinityMask relaxed = Affinity::getProcessAffinity(topology);
        if (relaxed.empty())
            return "Unable to get relaxed process affinity.";
        if (topology.getLpusFromMask(relaxed).size() < topology.getLpusFromMask(original).size())
            return "The relaxed affinity mask should not contain fewer LPUs than the original mask.";
        relaxer.reset();
        const AffinityMask restored = Affinity::getProcessAffinity(topology);
        if (restored.empty())
            return "Unable to get process affinity after restoring original mask.";
        if (restored != original)
            return "The affinity masks before and after relaxation must be equal.";
        return nullptr;
    }
};

} // namespace

void registerTestCommands(Controller& controller) {
    controller.registerCommand(new RelaxAffinity);
}

void warnOfTestCommand(const Command& command) {
    std::cout << "Warning: The " << command.getName() << " command is intended for testing purposes only."
              << std::endl;
}
