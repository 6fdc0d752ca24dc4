#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>

/// A rank keeps this up to date about itself in a file of a few pages, so that others can read it without the
/// rank: while it is busy, and when it has died.
///
/// The file lies in memory, and its rank alone writes to it, on its main thread. A record with a sequence is
/// being written while that is odd. Ticks are those of TickClock. Texts end with a zero. The layout has no
/// pointers that a reader follows: what stands there as an address only tells equal things from others.
namespace ProfileLayout {

using Word = std::atomic<std::uint64_t>;
static_assert(Word::is_always_lock_free);

constexpr std::uint64_t MAGIC = 0x31464f5250585652; ///< "RVXPROF1" as bytes
constexpr std::uint32_t VERSION = 1;
constexpr std::uint32_t BYTE_ORDER_MARK = 0x01020304;

constexpr std::size_t NUMBER_OPERATIONS = 256; ///< a power of 2
constexpr std::size_t NUMBER_NAMES = 128;
constexpr std::size_t NUMBER_EVENTS = 128;
constexpr std::size_t NUMBER_BILLS = 32;
constexpr std::size_t MAX_DEPTH = 4; ///< of commands inside commands that are kept

/// An operation of the message layer.
struct Operation {
    Word name;         ///< Name::address
    Word communicator; ///< see CommunicatorLabel
    Word size;  ///< bytes of this rank's buffer in the lower half, the partner or root in the upper one
    Word begin; ///< [ticks]; 0: it isn't timed, since it never waits
    Word end;   ///< [ticks]; 0: it hasn't ended, or isn't timed
};

/// The main thread's operations. The only part that is written while messages go.
struct Board {
    alignas(64) Word generation; ///< odd inside an operation; its half is the number of operations begun
    Word bytes;                  ///< of all operations
    Word waitTicks;              ///< in operations that may wait, without the one that is open
    Word looks;                  ///< that found nothing, such as a test of a request
    Word lentTicks;              ///< of waitTicks, asleep while other ranks work with threads
    alignas(64) Operation operations[NUMBER_OPERATIONS]; ///< that number n is at (n - 1) % NUMBER_OPERATIONS
};

/// The name of an operation, written once, before its address.
struct Name {
    Word address;
    char text[56];
};

/// A command at work.
struct Command {
    Word sequence;
    char name[96];
    std::int64_t beganAt;     ///< [ns] since 1970
    std::uint64_t beginTick;  ///< [ticks]
    std::uint64_t operations; ///< the values at its begin
    std::uint64_t bytes;
    std::uint64_t waitTicks;     ///< without lentTicks
    std::uint64_t processorTime; ///< [ns] of the process
    std::uint64_t memory;        ///< [bytes] resident
};

/// A timed event; all zero when free. Written while the time profile is on.
struct Event {
    Word sequence;
    char name[96];             ///< "class::method"
    std::uint64_t count;       ///< how often it was opened
    std::uint64_t nanoseconds; ///< closed spans
    std::uint64_t openedAt;    ///< [ticks], 0: it isn't open
};

/// The cost of a command on this rank. The latest is at (bills - 1) % NUMBER_BILLS.
struct Bill {
    Word sequence;
    char command[96];
    std::int64_t beganAt;        ///< [ns] since 1970
    std::uint64_t wallTime;      ///< [ns]
    std::uint64_t processorTime; ///< [ns] of all threads
    std::uint64_t waitTime;      ///< [ns] in operations of the message layer that may wait
    std::uint64_t operations;
    std::uint64_t bytes;
    std::uint64_t peakMemory; ///< [bytes]
    std::int64_t addedMemory; ///< [bytes]
    std::uint64_t hasFailed;
};

/// Written once, before the magic number.
struct Header {
    Word magic;
    std::uint32_t version;
    std::uint32_t byteOrder;
    std::uint64_t size; ///< [bytes] of the file
    std::uint32_t rank;
    std::uint32_t ranks;
    std::int32_t pid;
    std::int32_t masterPid;
    std::uint64_t startStamp;   ///< ThreadState::getStartStamp() of the process
    std::uint64_t pidNamespace; ///< Process::getPidNamespace(): the one that the pids belong to
    char bootId[40];
    char host[72];
    char masterHost[72];
    char job[64]; ///< the batch system's name and number of the job; empty without one
    char product[64];
    std::int64_t beganAt; ///< [ns] since 1970, at `beginTick`
    std::uint64_t beginTick;
    double ticksPerSecond;
};

struct Page { // NOLINT(clang-analyzer-optin.performance.Padding): the order is that of the file
    alignas(64) Header header;
    alignas(64) Board board;
    Word depth; ///< commands at work, also those beyond MAX_DEPTH
    Command commands[MAX_DEPTH];
    Word bills; ///< so far
    Bill bill[NUMBER_BILLS];
    Name names[NUMBER_NAMES];
    Event events[NUMBER_EVENTS];
};

} // namespace ProfileLayout
