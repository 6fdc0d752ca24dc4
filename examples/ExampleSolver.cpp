// A solver module: its command integrates 4 / (1 + x^2) from 0 to 1 on all ranks, which gives pi.
//
//   orvexctl ComputePi intervals=1000000
//
// While the command runs, "orvexctl status" shows its progress, and "orvexctl cancel" ends it.

#include "kernel/Command.h"
#include "kernel/Controller.h"
#include "kernel/Error.h"
#include "kernel/Module.h"
#include "kernel/Properties.h"
#include "kernel/Raise.h"
#include "kernel/Task.h"
#include "machine/Communicator.h"
#include "machine/Machine.h"

#include <algorithm>
#include <string>

namespace {

constexpr unsigned long BLOCK = 1000000; ///< intervals between two calls of Task::advance()

class ComputePi : public QueryCommand {
public:
    ComputePi()
        : QueryCommand({"Computes pi by an integral, on all ranks.",
                        {{"intervals", "unsigned", "number of intervals, 1 or more"}},
                        {{"pi", "real", "the integral"}, {"ranks", "unsigned", "how many computed it"}}}) {}
    std::string getName() const override { return "ComputePi"; }

    /// Runs on every rank at the same time. The client receives the response of the master.
    void execute(const Properties& arguments, Properties& response) override {
        const unsigned intervals = arguments.getUnsignedInt("intervals");
        if (intervals == 0)
            raise(InputError("\"intervals\" must be 1 or more"));
        const double width = 1.0 / intervals;
        Task task(getName());
        double sum = 0.0;
        for (unsigned long begin = 0; begin < intervals; begin += BLOCK) {
            // All ranks come here equally often. After a cancel all of them leave here by the same error.
            task.advance(double(begin) / intervals);
            const unsigned long end = std::min<unsigned long>(begin + BLOCK, intervals);
            for (unsigned long i = begin + Machine::getPartitionId(); i < end; i += Machine::nProcesses()) {
                const double x = (double(i) + 0.5) * width;
                sum += width * 4.0 / (1.0 + x * x);
            }
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
