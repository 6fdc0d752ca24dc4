#include "machine/GlobalReport.h"

#include "machine/Communicator.h"
#include "machine/MachineGround.h"

#include "kernel/ObservableFromClient.h"

#include <sstream>

void GlobalReport::limit(const std::string& quantity, const std::string& region, long long cells,
                         const double* value) {
    if (MachineGround::isParallel())
        MachineGround::globalCommunicator().allReduce(cells, Communicator::SUM);
    if (cells <= 0)
        return;
    std::ostringstream text;
    text << quantity << " limited";
    if (value != nullptr)
        text << " to " << *value;
    text << " in " << cells << " cells in region " << region << '\n';
    ObservableFromClient::notifyImmediate(ObservableFromClient::CONSOLE_MESSAGE, text.str());
}
