#pragma once

#include "kernel/MessagingGate.h"
#include "machine/MachineExport.h"
#include "machine/messages/MessageOperation.h"

#include <cstdint>
#include <string>

/// Interface of the recorder that takes down each operation and each command while a trace is taken.
///
/// Main thread. While none is taken this costs nothing beyond the gate of messages.
class ORVEX_MACHINE_EXPORT OperationTrace {
public:
    /// A call as it is told at its begin.
    struct Call {
        std::uint64_t label = 0; ///< CollectiveHistory::getLabel()
        std::uint32_t bytes = 0;
        std::int32_t partner = -1;
        std::uint32_t number = 0; ///< of a collective, on its communicator
        std::uint32_t tag = 0;
        std::uint32_t requests = 0; ///< tells stacks of requests apart
    };

    virtual ~OperationTrace();
    /// @param begin  [ticks]; 0: now
    /// @return what close() gets back; 0: it isn't taken down, and close() isn't called
    virtual std::uint64_t open(const MessageOperation& operation, const Call& call,
                               std::uint64_t begin) noexcept = 0;
    /// @param partner  that is known only now; -1: none
    virtual void close(std::uint64_t token, int partner) noexcept = 0;
    /// An operation is over that perhaps began before the trace.
    virtual void closeUnseen() noexcept = 0;
    virtual void beginCommand(const std::string& name) noexcept = 0;
    virtual void endCommand() noexcept = 0;

    /// A number that tells a stack of requests from others.
    static std::uint32_t numberOf(const void* requests) {
        return static_cast<std::uint32_t>(reinterpret_cast<std::uintptr_t>(requests) >> 3);
    }
    static bool isOn() { return MessagingGate::has(MessagingGate::TRACE); }
    /// Before a trace is taken. It has to live to the end of the process.
    static void install(OperationTrace& trace) { _installed = &trace; }
    /// While a trace is on.
    static OperationTrace& get() { return *_installed; }
    /// The work of closeUnseen(), out of the way of operations.
    static void leaveUnseen() noexcept;

private:
    static OperationTrace* _installed;
};
