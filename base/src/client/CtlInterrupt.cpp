#include "client/CtlInterrupt.h"

#include "client/CtlConsole.h"
#include "client/CtlSession.h"

#include "platform/Signals.h"

CtlInterrupt::CtlInterrupt(CtlSession& session, CtlConsole& console, const std::string& command)
    : _session(session), _console(console), _command(command) {
    _session.getClient().setInterruptCallback([this] { return onInterrupt(); });
    Platform::signals().watch({Platform::Signals::INTERRUPT},
                              [&client = _session.getClient()](int, int) { client.interrupt(); });
}

CtlInterrupt::~CtlInterrupt() {
    Platform::signals().unwatch();
    _session.getClient().setInterruptCallback(nullptr);
}

bool CtlInterrupt::onInterrupt() {
    if (++_count > 1 || _command.empty())
        return false;
    _console.tell("[" + _session.cancel(_command) + ". Ctrl-C again ends orvexctl without waiting for it]");
    return true;
}
