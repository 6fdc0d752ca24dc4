#include "machine/commands/FloatingPointCommands.h"

#include "machine/GlobalFloatingPointError.h"
#include "machine/MachineGround.h"
#include "machine/commands/TestCommands.h"

#include "kernel/Command.h"
#include "kernel/Controller.h"
#include "kernel/IsolatedFpuContext.h"
#include "kernel/Properties.h"
#include "kernel/Raise.h"
#include "platform/FloatingPointErrorRecord.h"
#include "platform/FpuHandling.h"

#include <cfenv>
#include <cmath>
#include <iostream>
#include <limits>
#include <optional>
#include <string>

namespace {

/// Values that the compiler reads from memory each time: the processor performs each operation on them, and
/// none is folded, merged or left out.
namespace Operands {
volatile double zero = 0.0;
volatile double half = 0.5;
volatile double one = 1.0;
volatile double two = 2.0;
volatile double tenthOfThousandth = 0.0001;
volatile double billion = 1e9;
volatile double huge = 1e300;
volatile double eighthOfLargest = 2.2471164185778946e307;
volatile double largest = std::numeric_limits<double>::max();
volatile double smallestNormal = std::numeric_limits<double>::min();
volatile double smallestSubnormal = std::numeric_limits<double>::denorm_min();
} // namespace Operands

__attribute__((noinline, no_sanitize("float-divide-by-zero"))) double divide(double a, double b) {
    return a / b;
}

const CommandKey PASS = {"pass", "bool", "true; a failure is an error"};
const CommandKey MESSAGE = {"message", "text", "the result in words"};

/// Records a value that isn't finite, and prints a finite one.
class FloatingPointFault : public NoResultCommand {
public:
    using NoResultCommand::execute;
    void execute(const Properties&) override {
        const double x = compute();
        if (std::isfinite(x))
            std::cout << "x = " << x << std::endl;
        else
            FloatingPointErrorRecord::set("Non-finite value detected while calculating 'x' in Command '" +
                                          getName() + "'.");
    }

protected:
    explicit FloatingPointFault(const std::string& what)
        : NoResultCommand({what + " on all ranks, which is an error. For tests."}) {}
    virtual double compute() const = 0;
};

class InvokeDivideByZero : public FloatingPointFault {
public:
    InvokeDivideByZero() : FloatingPointFault("Divides by zero") {}
    std::string getName() const override { return "InvokeDivideByZero"; }

private:
    double compute() const override { return divide(Operands::two, Operands::zero); }
};

class InvokeOverflow : public FloatingPointFault {
public:
    InvokeOverflow() : FloatingPointFault("Doubles the largest number") {}
    std::string getName() const override { return "InvokeOverflow"; }

private:
    double compute() const override { return Operands::largest + Operands::largest; }
};

class InvokeInvalidFloatingPointOperation : public FloatingPointFault {
public:
    InvokeInvalidFloatingPointOperation() : FloatingPointFault("Divides zero by zero") {}
    std::string getName() const override { return "InvokeInvalidFloatingPointOperation"; }

private:
    double compute() const override { return divide(Operands::zero, Operands::zero); }
};

void warnOnConsole(const Command& command) {
    if (MachineGround::isSerialOrMaster())
        warnOfTestCommand(command);
}

/// Performs the operations whose bits are set, in the order of the bits.
void perform(unsigned operations) {
    using namespace Operands;
    const auto isSet = [&](unsigned bit) { return (operations & bit) != 0; };
    const auto print = [](double value) { std::cout << "  result = " << value << std::endl; };
    if (isSet(1))
        print(divide(one, zero));
    if (isSet(2))
        print(divide(zero, zero));
    if (isSet(4))
        print(largest + largest);
    if (isSet(8))
        print(smallestNormal * half);
    if (isSet(16))
        print(smallestSubnormal);
    if (isSet(32))
        print(huge * smallestSubnormal);
    // The numbers are those of x86; it has no fault of its own for the first.
    if (isSet(64))
        std::feraiseexcept(2);
    if (isSet(128))
        std::feraiseexcept(1);
}

} // namespace

/// Shows what the status flags of this thread tell before, behind and after an isolated context. Holds the
/// keys to the flags.
class FpuTesting : public Command {
public:
    FpuTesting()
        : Command(
              {"Prints the floating-point status of each rank around three sets of operations. For tests.",
               {{"isolated", "bool", "the second set runs in an isolated context; false by default", false},
                setHelp("op1"),
                setHelp("op2"),
                setHelp("op3")},
               {PASS, MESSAGE}}) {}
    std::string getName() const override { return "FpuTesting"; }

    void execute(const Properties& args, Properties& response) override {
        warnOnConsole(*this);
        check("Initial check for FPEs ...");
        clear();
        say("Performing operations #1 ...");
        perform(args.getOr("op1", 0u));
        check("Checking FPE status register ...");
        say("Performing operations #2 ...");
        performSecond(args.getOr("op2", 0u), args.getOr("isolated", false));
        check("Checking FPE status register ...");
        clear();
        say("Performing operations #3 ...");
        perform(args.getOr("op3", 0u));
        check("Checking FPE status register ...");
        clear();
        check("Final check for FPEs ...");
        response.set("pass", true);
        response.set("message", "Successfully executed FPU testing.");
    }

private:
    static CommandKey setHelp(const char* name) {
        return {name, "unsigned",
                "the sum of: 1 division by zero, 2 zero by zero, 4 overflow, 8 and 16 subnormal numbers, 32 "
                "their product with 1e300, 64 and 128 feraiseexcept() of 2 and 1; 0 by default",
                false};
    }

    static void performSecond(unsigned operations, bool isIsolated) {
        std::optional<IsolatedFpuContext> context;
        if (isIsolated)
            context.emplace(false);
        perform(operations);
        if (isIsolated)
            check("Checking FPE status register (context)...");
    }

    static void say(const char* text) { std::cout << text << std::endl; }

    static void check(const char* text) {
        say(text);
        constexpr struct {
            FpuHandling::Fpe fault;
            const char* text;
        } FAULTS[] = {{FpuHandling::DIVISION_BY_ZERO, "  FPE: DIV by zero"},
                      {FpuHandling::INVALID_OPERATION, "  FPE: invalid operation"},
                      {FpuHandling::OVERFLOW_FAULT, "  FPE: overflow"}};
        for (const auto& row : FAULTS)
            if (FpuHandling::testFpeStatus(FpeStatusReadAccessKey(), row.fault))
                say(row.text);
    }

    static void clear() {
        say("Clearing FPE status register ...");
        FpuHandling::clearFpeStatus(FpeStatusWriteAccessKey());
    }
};

namespace {

/// Lets a value become infinite, on the master earlier than on the workers.
class GlobalFloatingPointErrorTesting : public Command {
public:
    GlobalFloatingPointErrorTesting()
        : Command(
              {"Lets each rank compute values that aren't finite, and checks the error that all get. For "
               "tests.",
               {{"logErrors", "bool", "record the first such value of a rank; true by default", false},
                {"assertInCommand", "bool", "raise the error within the command; false by default", false}},
               {PASS, MESSAGE}}) {}
    std::string getName() const override { return "GlobalFloatingPointErrorTesting"; }

    void execute(const Properties& args, Properties& response) override {
        warnOnConsole(*this);
        Log log(args.getOr("logErrors", true));
        const double c = computePost(computeResult(computeIntermediate(log), log), log);
        ORVEX_ASSERT_AS(!std::isfinite(c), "false",
                        "The \"post\" result should be non-finite for all processes at this point.");
        if (args.getOr("assertInCommand", false))
            GlobalFloatingPointError::assertNoError();
        response.set("pass", true);
        response.set("message", "Successfully executed GlobalAlgorithmicErrorStatus testing.");
    }

private:
    /// Records the first text: it names the cause, and the others what followed from it.
    class Log {
    public:
        explicit Log(bool isOn) : _isOn(isOn) {}
        void record(const char* text) {
            if (_isOn)
                FloatingPointErrorRecord::set(text);
            _isOn = false;
        }

    private:
        bool _isOn;
    };

    static double computeIntermediate(Log& log) {
        const double a = divide(
            Operands::one, MachineGround::isSerialOrMaster() ? Operands::zero : Operands::tenthOfThousandth);
        if (!std::isfinite(a))
            log.record("The intermediate result isn't finite anymore!");
        ORVEX_ASSERT_AS(std::isfinite(a) || MachineGround::isSerialOrMaster(),
                        "Machine::isMaster() || Machine::isSerial()",
                        "Only on process #0 the intermediate result is supposed to be non-finite.");
        return a;
    }

    static double computeResult(double a, Log& log) {
        const double b = a * Operands::eighthOfLargest;
        log.record("Our result isn't finite anymore!");
        ORVEX_ASSERT_AS(!std::isfinite(b), "false",
                        "The result should be non-finite for all processes at this point.");
        return b;
    }

    static double computePost(double b, Log& log) {
        const double c = b / Operands::billion;
        log.record("ERROR: This should never be printed!");
        return c;
    }
};

} // namespace

void registerFloatingPointFaults(Controller& controller) {
    controller.registerCommand(new InvokeDivideByZero);
    controller.registerCommand(new InvokeOverflow);
    controller.registerCommand(new InvokeInvalidFloatingPointOperation);
}

void registerFloatingPointTests(Controller& controller) {
    controller.registerCommand(new FpuTesting);
    controller.registerCommand(new GlobalFloatingPointErrorTesting);
}
