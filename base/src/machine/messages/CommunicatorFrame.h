#pragma once

#include "kernel/MessagingGate.h"
#include "machine/Communicator.h"
#include "machine/messages/CommunicatorStatistics.h"

/// The frame around every wrapper call of Communicator: the gate, the communication timer, the statistics.
///
/// With nothing locked, timed or counted all of it is one test of a thread-local word. The rest is out of
/// line.
class CommunicatorFrame {
public:
    /// An operation, as statistics know it.
    struct Operation {
        const char* name;
        CommunicatorStatistics::Kind kind;
        bool isTimed = true;
    };
    static constexpr Operation global(const char* name) { return {name, CommunicatorStatistics::GLOBAL}; }
    static constexpr Operation pointToPoint(const char* name) {
        return {name, CommunicatorStatistics::POINT_TO_POINT};
    }

    /// @param bytes  `size * typeSize` of the buffer, in 32 bits
    CommunicatorFrame(Communicator& communicator, const Operation& operation, unsigned bytes) {
        if (!MessagingGate::isOpen()) [[unlikely]]
            open(communicator, operation, bytes);
    }
    CommunicatorFrame(const CommunicatorFrame&) = delete;
    CommunicatorFrame& operator=(const CommunicatorFrame&) = delete;
    ~CommunicatorFrame() {
        if (_event) [[unlikely]]
            closeEvent(0);
    }
    /// The operation succeeded.
    void finish(unsigned partner = 0) {
        if (_communicator) [[unlikely]]
            close(partner);
    }

    /// Runs `call` inside a frame. All arguments go by value, so the open gate leads to a plain jump.
    /// @return its code, to be handled by the caller
    template <auto call, const Operation& operation, class... Args>
    [[gnu::always_inline]] static int run(Communicator* communicator, unsigned bytes, unsigned partner,
                                          Args... args) {
        if (MessagingGate::isOpen()) [[likely]]
            return call(args...);
        return runSlowly<call, operation>(communicator, bytes, partner, args...);
    }

private:
    template <auto call, const Operation& operation, class... Args>
    [[gnu::noinline]] static int runSlowly(Communicator* communicator, unsigned bytes, unsigned partner,
                                           Args... args) {
        CommunicatorFrame frame(*communicator, operation, bytes);
        const int code = call(args...);
        MpiCore::handleError(code);
        frame.finish(partner);
        return code;
    }

    void open(Communicator& communicator, const Operation& operation, unsigned bytes);
    void close(unsigned partner);
    void closeEvent(unsigned partner) noexcept;

    Communicator* _communicator = nullptr; ///< null while the gate is open
    const Operation* _operation = nullptr;
    CommunicatorStatistics* _statistics = nullptr;
    void* _event = nullptr;
    double _start = 0.0;
    bool _isTimed = false;
};

/// Bytes of a view, as statistics count them.
template <class View>
unsigned bytesOf(const View& view) {
    return static_cast<unsigned>(view.size) * view.typeSize;
}
