#include "machine/commands/SegmentationCommands.h"

#include "machine/MachineGround.h"

#include "kernel/Command.h"
#include "kernel/Controller.h"

#include <string>

namespace {

/// In the first page, which the system never maps. It is read at run time, so the compiler keeps the write.
volatile int* volatile nowhere = reinterpret_cast<int*>(16);

/// A sanitizer would report the write in its own way.
__attribute__((noinline, no_sanitize("address", "thread", "undefined"))) void writeToUnmappedAddress() {
    *nowhere = 1;
}

/// Raises a segmentation fault on the ranks that a derived class chooses; the others return at once.
class SegmentationCommand : public NoResultCommand {
public:
    using NoResultCommand::execute;
    void execute(const Properties&) override {
        if (isChosen())
            writeToUnmappedAddress();
    }

protected:
    explicit SegmentationCommand(const std::string& where)
        : NoResultCommand({"Writes to an address that isn't mapped, " + where + ". For tests."}) {}
    virtual bool isChosen() const = 0;
};

class InvokeMasterSegmentationError : public SegmentationCommand {
public:
    InvokeMasterSegmentationError() : SegmentationCommand("on the master or in a serial process") {}
    std::string getName() const override { return "InvokeMasterSegmentationError"; }

private:
    bool isChosen() const override { return MachineGround::isSerialOrMaster(); }
};

class InvokeSynchronousSegmentationError : public SegmentationCommand {
public:
    InvokeSynchronousSegmentationError() : SegmentationCommand("on all ranks") {}
    std::string getName() const override { return "InvokeSynchronousSegmentationError"; }

private:
    bool isChosen() const override { return true; }
};

class InvokeAsynchronousSegmentationError : public SegmentationCommand {
public:
    InvokeAsynchronousSegmentationError() : SegmentationCommand("on rank 1 or in a serial process") {}
    std::string getName() const override { return "InvokeAsynchronousSegmentationError"; }

private:
    bool isChosen() const override {
        return MachineGround::isSerial() || MachineGround::getPartitionId() == 1;
    }
};

} // namespace

void registerSegmentationCommands(Controller& controller) {
    controller.registerCommand(new InvokeMasterSegmentationError);
    controller.registerCommand(new InvokeSynchronousSegmentationError);
    controller.registerCommand(new InvokeAsynchronousSegmentationError);
}
