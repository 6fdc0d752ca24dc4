#include "machine/GlobalDebug.h"

#include "kernel/Command.h"
#include "kernel/Controller.h"
#include "kernel/Properties.h"

namespace GlobalDebugCommands {

class VerifyIdConsistency : public QueryCommand {
public:
    VerifyIdConsistency()
        : QueryCommand({"Checks that all ranks hold the master's objects under the same keys and ids.",
                        {},
                        {{"result", "bool", "true; a difference is an error"}}}) {}
    std::string getName() const override { return "GlobalDebug.VerifyIdConsistency"; }
    void execute(const Properties&, Properties& response) override {
        GlobalDebug().checkCsoIdConsistency(static_cast<Properties*>(nullptr));
        response.set("result", true);
    }
};

} // namespace GlobalDebugCommands

namespace {

[[maybe_unused]] const bool isRegistered = [] {
    Controller::getSingleton().registerCommand(new GlobalDebugCommands::VerifyIdConsistency);
    return true;
}();

} // namespace
