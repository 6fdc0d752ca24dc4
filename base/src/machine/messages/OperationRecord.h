#pragma once

#include "machine/MachineExport.h"
#include "machine/messages/MessageOperation.h"

#include <atomic>
#include <cstdint>
#include <string>

/// Tells other threads in which operation of the message layer the main thread stands, and in which command.
///
/// The main thread writes, with a few plain stores around each operation; any thread reads. An operation that
/// is made of others, for example a synchronisation that sleeps, counts as one. A look that waits for nothing
/// and finds nothing (test(), iProbe()) is counted apart: it moves nothing.
class ORVEX_MACHINE_EXPORT OperationRecord {
public:
    /// The record at one moment.
    struct Snapshot {
        bool isInside = false;         ///< in an operation
        std::string operation;         ///< this one, or the last one, for example "allReduce"
        std::string communicator;      ///< for example "global, 7 ranks"; empty for an operation of requests
        std::uint64_t bytes = 0;       ///< of this rank's buffer
        int partner = -1;              ///< the root, or the other end of a message; -1: there is none
        std::uint64_t generation = 0;  ///< moves when an operation or a command begins or ends
        std::uint64_t operations = 0;  ///< begun since the command began
        std::uint64_t collectives = 0; ///< of these, those that all ranks of a communicator call together
        std::uint64_t number = 0;      ///< of a collective, among those of its communicator in the command
        std::uint64_t looks = 0;       ///< in vain, in all: a rank that waits in a loop of test() moves it

        std::string command;         ///< at work on this rank, the innermost one; empty between commands
        double commandSeconds = 0.0; ///< since it began [s]
        std::string failure;         ///< the message of the error by which this rank left it
    };

    // ---- Any thread.

    static Snapshot read();
    /// That of the snapshot, for a watcher that looks often.
    static std::uint64_t getGeneration();

    // ---- Commands. Main thread. A command may run inside another one.

    static void beginCommand(const std::string& name);
    /// This rank has left the command by an error and waits for the others.
    static void setFailure(const std::string& message);
    static void endCommand();

    // ---- Operations, inside this library. Main thread.

    /// @param communicator  CollectiveHistory::getLabel(), 0 for none
    static void begin(const MessageOperation& operation, std::uint64_t communicator, unsigned bytes,
                      int partner) {
        // A reader that sees one of these new values sees the even generation before it too.
        _line->communicator.store(communicator, std::memory_order_release);
        _line->size.store(std::uint64_t(static_cast<unsigned>(partner)) << 32 | bytes,
                          std::memory_order_release);
        beginNoted(operation);
    }
    /// A collective that CollectiveHistory has just noted, with all that is to tell.
    static void beginNoted(const MessageOperation& operation) {
        Line& line = *_line;
        line.operation.store(&operation, std::memory_order_release);
        line.generation.store(line.generation.load(std::memory_order_relaxed) | 1, std::memory_order_release);
    }
    static void end() {
        std::atomic<std::uint64_t>& generation = _line->generation;
        generation.store((generation.load(std::memory_order_relaxed) + 1) & ~std::uint64_t(1),
                         std::memory_order_release);
    }
    static bool isInside() { return (_line->generation.load(std::memory_order_relaxed) & 1) != 0; }
    static void countLook() { step(_line->looks, 1); }

    /// An operation from here to the end of the scope, by whatever way.
    class Scope {
    public:
        /// A collective that CollectiveHistory has just noted.
        explicit Scope(const MessageOperation& operation) { beginNoted(operation); }
        Scope(const MessageOperation& operation, std::uint64_t communicator, unsigned bytes = 0,
              int partner = -1) {
            begin(operation, communicator, bytes, partner);
        }
        ~Scope() { end(); }
        Scope(const Scope&) = delete;
        Scope& operator=(const Scope&) = delete;
    };

private:
    struct Line;

public:
    /// The same for an operation that is made of others: these aren't recorded.
    class Composite {
    public:
        explicit Composite(const MessageOperation& operation);
        Composite(const MessageOperation& operation, std::uint64_t communicator, unsigned bytes = 0,
                  int partner = -1);
        ~Composite();
        Composite(const Composite&) = delete;
        Composite& operator=(const Composite&) = delete;

    private:
        Line* _before;
        bool _holds; ///< a word of CollectiveHistory
    };

private:
    struct alignas(64) Line {
        std::atomic<std::uint64_t> generation{0}; ///< odd inside an operation
        std::atomic<const MessageOperation*> operation{nullptr};
        std::atomic<std::uint64_t> communicator{0};
        std::atomic<std::uint64_t> size{0}; ///< bytes in the lower half, the partner in the upper one
        std::atomic<std::uint64_t> looks{0};
    };

    /// Only one thread writes.
    static void step(std::atomic<std::uint64_t>& counter, std::uint64_t by) {
        counter.store(counter.load(std::memory_order_relaxed) + by, std::memory_order_relaxed);
    }
    static bool readLine(Snapshot& snapshot);

    // Hidden, so that no table of addresses is read on the way.
    [[gnu::visibility("hidden")]] static constinit Line _main;
    [[gnu::visibility("hidden")]] static constinit Line _unseen; ///< for the parts of a composite
    [[gnu::visibility("hidden")]] static constinit Line* _line;
};
