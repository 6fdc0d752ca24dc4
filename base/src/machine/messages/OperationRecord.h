#pragma once

#include "kernel/profile/ProfileLayout.h"
#include "machine/MachineExport.h"
#include "machine/messages/MessageOperation.h"
#include "machine/messages/OperationTrace.h"
#include "platform/TickClock.h"

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
    /// Of the operations alone.
    static std::uint64_t getOperationGeneration() {
        return getPage().board.generation.load(std::memory_order_acquire);
    }
    /// Of the commands alone: how many have begun and how many have ended, together.
    static std::uint64_t getCommandChanges();

    // ---- Commands. Main thread. A command may run inside another one.

    static void beginCommand(const std::string& name);
    /// This rank has left the command by an error and waits for the others.
    static void setFailure(const std::string& message);
    static void endCommand();

    // ---- Operations, inside this library. Main thread.

    /// @param communicator  CollectiveHistory::getLabel(), 0 for none
    static void begin(const MessageOperation& operation, std::uint64_t communicator, unsigned bytes,
                      int partner) {
        if (_known[hashOf(operation)] != &operation) [[unlikely]]
            learn(operation);
        Board& board = *_board;
        const std::uint64_t generation = board.generation.load(std::memory_order_relaxed);
        ProfileLayout::Operation& slot = slotOf(board, generation);
        // A reader that sees one of these new values sees the even generation before it too.
        slot.name.store(addressOf(operation), std::memory_order_release);
        slot.communicator.store(communicator, std::memory_order_release);
        slot.size.store(std::uint64_t(static_cast<unsigned>(partner)) << 32 | bytes,
                        std::memory_order_release);
        slot.end.store(0, std::memory_order_release);
        slot.begin.store(bytes >= operation.waitsFrom ? Platform::TickClock::read() : 0,
                         std::memory_order_release);
        step(board.bytes, bytes);
        board.generation.store(generation | 1, std::memory_order_release);
    }
    /// A collective that CollectiveHistory has just noted.
    static void beginNoted(const MessageOperation& operation);
    static void end() {
        Board& board = *_board;
        const std::uint64_t generation = board.generation.load(std::memory_order_relaxed);
        if ((generation & 1) == 0)
            return; // another operation has ended it
        ProfileLayout::Operation& slot = slotOf(board, generation);
        const std::uint64_t begin = slot.begin.load(std::memory_order_relaxed);
        if (begin != 0) {
            const std::uint64_t now = Platform::TickClock::read();
            slot.end.store(now, std::memory_order_relaxed);
            step(board.waitTicks, now - begin);
        }
        board.generation.store(generation + 1, std::memory_order_release);
        if (!MessagingGate::isOpen()) [[unlikely]]
            leave();
    }
    static bool isInside() { return (_board->generation.load(std::memory_order_relaxed) & 1) != 0; }
    static void countLook() { step(_board->looks, 1); }
    /// Of the time in operations, `ticks` were spent asleep while another rank's threads had the processor.
    static void noteLent(std::uint64_t ticks) { step(_board->lentTicks, ticks); }

    /// Has the record kept in `page` from now on, with all that it holds by now, until moveBack().
    static void moveTo(ProfileLayout::Page& page);
    /// The same, in the page of its own again.
    static void moveBack() { moveTo(_ownPage); }
    /// The page that it is kept in, at first one of its own.
    static ProfileLayout::Page& getPage() { return *_page; }

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
    using Board = ProfileLayout::Board;

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
        void trace(const MessageOperation& operation, const OperationTrace::Call& call);

        Board* _before;
        std::uint64_t _token = 0; ///< of the trace
        bool _holds;              ///< a word of CollectiveHistory
    };

private:
    static constexpr std::size_t NUMBER_KNOWN = 512; ///< a power of 2

    /// Only one thread writes.
    static void step(std::atomic<std::uint64_t>& counter, std::uint64_t by) {
        counter.store(counter.load(std::memory_order_relaxed) + by, std::memory_order_relaxed);
    }
    /// The slot of the operation that is open, or begins next.
    static ProfileLayout::Operation& slotOf(Board& board, std::uint64_t generation) {
        return board.operations[generation / 2 % ProfileLayout::NUMBER_OPERATIONS];
    }
    static std::uint64_t addressOf(const MessageOperation& operation) {
        return reinterpret_cast<std::uintptr_t>(&operation);
    }
    static std::size_t hashOf(const MessageOperation& operation) {
        return addressOf(operation) / alignof(MessageOperation) % NUMBER_KNOWN;
    }
    static void learn(const MessageOperation& operation);
    static bool readBoard(Snapshot& snapshot);
    static bool readLine(Snapshot& snapshot);
    /// Beside the way: the gate isn't open.
    static void leave() noexcept;

    // Hidden, so that no table of addresses is read on the way.
    [[gnu::visibility("hidden")]] static constinit ProfileLayout::Page _ownPage;
    [[gnu::visibility("hidden")]] static constinit Board _unseen; ///< for the parts of a composite
    [[gnu::visibility("hidden")]] static constinit Board* _board;
    [[gnu::visibility("hidden")]] static constinit std::atomic<ProfileLayout::Page*> _page;
    /// Operations whose names stand in the page.
    [[gnu::visibility("hidden")]] static constinit const MessageOperation* _known[NUMBER_KNOWN];
};
