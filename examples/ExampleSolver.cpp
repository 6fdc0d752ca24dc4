// A solver module: its command integrates 4 / (1 + x^2) from 0 to 1 on all ranks, which gives pi.
//
//   orvexctl ComputePi intervals=1000000

#include "kernel/Command.h"
#include "kernel/Controller.h"
#include "kernel/Error.h"
#include "kernel/Module.h"
#include "kernel/Properties.h"
#include "kernel/Raise.h"
#include "machine/Communicator.h"
#include "machine/Machine.h"

#include <string>

namespace {

class ComputePi : public QueryCommand {
public:
    ComputePi()
        : QueryCommand({"Computes pi by an integral, on all ranks.",
                        {{"intervals", "unsigned", "number of intervals, 1 or more"}},
                        {{"pi", "real", "the integral"}, {"ranks", "unsigned", "how many computed it"}}}) {}
    std::string getName() const override { return "ComputePi"; }

    /// Runs on every rank at the same time; what the master puts into its response reaches the client.
    void execute(const Properties& arguments, Properties& response) override {
        const unsigned intervals = arguments.getUnsignedInt("intervals");
        if (intervals == 0)
            raise(InputError("\"intervals\" must be 1 or more"));
        const double width = 1.0 / intervals;
        double sum = 0.0;
        for (unsigned i = Machine::getPartitionId(); i < intervals; i += Machine::nProcesses()) {
            const double x = (i + 0.5) * width;
            sum += width * 4.0 / (1.0 + x * x);
        }
        if (Machine::isParallel())
            Machine::globalCommunicator().allReduce(sum, Communicator::SUM);
        response.set("pi", sum);
        response.set("ranks", Machine::nProcesses());
    }
};

} // namespace

ORVEX_MODULE_ENTRY() {
    Controller::getSingleton().registerCommand(new ComputePi);
}
