#pragma once

#include "kernel/MessagingGate.h"
#include "machine/Communicator.h"
#include "machine/messages/CollectiveHistory.h"
#include "machine/messages/CommunicatorStatistics.h"
#include "machine/messages/OperationRecord.h"
#include "machine/messages/OperationTrace.h"

/// A call as it goes into the record of operations and into the history of collectives.
struct MessageCall {
    int partner = -1; ///< the root, or the other end of a message
    std::uint64_t word =
        0; ///< of a collective; else the tag in the lower half, the requests in the upper one
};

/// The frame around every wrapper call of Communicator: the gate, the communication timer, the statistics,
/// the record of operations, and the history of collectives.
///
/// With nothing locked, timed or counted all of it is one test of a thread-local word, and a few stores. The
/// rest is out of line.
class CommunicatorFrame {
public:
    using Operation = MessageOperation;
    static constexpr Operation global(const char* name, Collective collective) {
        return {name, CommunicatorStatistics::GLOBAL, true, collective};
    }
    /// @param waitsFrom  as MessageOperation::waitsFrom
    static constexpr Operation pointToPoint(const char* name, unsigned waitsFrom = 0) {
        return {name, CommunicatorStatistics::POINT_TO_POINT, true, Collective::NONE, waitsFrom};
    }

    using Call = MessageCall;
    /// @param requests  the stack that gets or completes a request
    static Call message(int partner, int tag, const void* requests = nullptr) {
        return {partner,
                std::uint64_t(OperationTrace::numberOf(requests)) << 32 | static_cast<unsigned>(tag)};
    }
    /// @param reduction, type  as CollectiveHistory::wordOf() takes them
    static constexpr Call collective(const Operation& called, unsigned bytes, int root = -1,
                                     int reduction = 0, int type = 0) {
        return {root, CollectiveHistory::wordOf(called.collective, bytes, root, reduction, type)};
    }
    /// A look that doesn't wait: it isn't recorded before it has found something.
    enum class Look { AT_REQUESTS };

    /// @param bytes  `size * typeSize` of the buffer, in 32 bits
    CommunicatorFrame(Communicator& communicator, const Operation& operation, unsigned bytes, Call call = {})
        : CommunicatorFrame(communicator, operation, bytes, Look::AT_REQUESTS) {
        begin(communicator, operation, bytes, call);
        _isRecorded = true;
        if (_communicator) [[unlikely]]
            openTrace(bytes, call);
    }
    CommunicatorFrame(Communicator& communicator, const Operation& operation, unsigned bytes, Look) {
        if (!MessagingGate::isOpen()) [[unlikely]]
            open(communicator, operation, bytes);
    }
    CommunicatorFrame(const CommunicatorFrame&) = delete;
    CommunicatorFrame& operator=(const CommunicatorFrame&) = delete;
    ~CommunicatorFrame() {
        if (_isRecorded)
            OperationRecord::end();
        if (_communicator) [[unlikely]]
            leave();
    }
    /// The operation succeeded.
    void finish(unsigned partner = 0) {
        if (_communicator) [[unlikely]]
            close(partner);
    }
    /// For a look: it has found something, or not.
    void recordLook(const Communicator& communicator, const Operation& operation, bool found, Call call) {
        if (!found)
            return OperationRecord::countLook();
        begin(communicator, operation, 0, {});
        OperationRecord::end();
        if (_communicator) [[unlikely]]
            openTrace(0, call);
    }

    /// Runs `call` inside a frame. All arguments go by value, so that the fast path spills none.
    /// @return its code, to be handled by the caller
    template <auto call, const Operation& operation, class... Args>
    [[gnu::always_inline]] static int run(Communicator* communicator, unsigned bytes, Call what,
                                          Args... args) {
        if (!MessagingGate::isOpen()) [[unlikely]]
            return runSlowly<call, operation>(communicator, bytes, what, args...);
        begin(*communicator, operation, bytes, what);
        const Ending ending;
        return call(args...);
    }

private:
    /// Also when an exception passes: a signal can become one.
    struct Ending {
        Ending() = default;
        ~Ending() { OperationRecord::end(); }
        Ending(const Ending&) = delete;
        Ending& operator=(const Ending&) = delete;
    };

    [[gnu::always_inline]] static void begin(const Communicator& communicator, const Operation& operation,
                                             unsigned bytes, Call call) {
        CollectiveHistory& history = *communicator._history;
        if (operation.collective == Collective::NONE)
            return OperationRecord::begin(operation, history.getLabel(), bytes, call.partner);
        history.note(call.word);
        OperationRecord::begin(operation, history.getLabel(), CollectiveHistory::bytesOf(call.word),
                               call.partner);
    }

    template <auto call, const Operation& operation, class... Args>
    [[gnu::noinline]] static int runSlowly(Communicator* communicator, unsigned bytes, Call what,
                                           Args... args) {
        CommunicatorFrame frame(*communicator, operation, bytes, what);
        const int code = call(args...);
        MpiCore::handleError(code);
        frame.finish(partnerOf(operation, what));
        return code;
    }
    /// As statistics take it.
    static constexpr unsigned partnerOf(const Operation& operation, Call call) {
        const bool has = operation.kind == CommunicatorStatistics::POINT_TO_POINT && call.partner >= 0;
        return has ? static_cast<unsigned>(call.partner) : 0;
    }

    void open(Communicator& communicator, const Operation& operation, unsigned bytes);
    void close(unsigned partner);
    void leave() noexcept;
    void openTrace(unsigned bytes, Call call) noexcept;
    void closeTrace(int partner) noexcept;
    void closeEvent(unsigned partner) noexcept;

    Communicator* _communicator = nullptr; ///< null while the gate is open
    const Operation* _operation = nullptr;
    CommunicatorStatistics* _statistics = nullptr;
    void* _event = nullptr;
    double _start = 0.0;
    std::uint64_t _begin = 0; ///< [ticks] of a trace
    std::uint64_t _token = 0; ///< of the trace
    bool _isTimed = false;
    bool _isRecorded = false;
};

/// Bytes of a view, as statistics count them.
template <class View>
unsigned bytesOf(const View& view) {
    return static_cast<unsigned>(view.size) * view.typeSize;
}
