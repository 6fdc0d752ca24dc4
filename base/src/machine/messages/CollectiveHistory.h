#pragma once

#include "kernel/profile/CommunicatorLabel.h"
#include "machine/MachineExport.h"
#include "machine/messages/MessageOperation.h"

#include <array>
#include <atomic>
#include <bit>
#include <cstdint>
#include <string>
#include <vector>

class Communicator;

/// The collective operations that this rank called on one communicator since the command began, as a hash and
/// a count. Only what all ranks of a communicator must agree in goes into it, so ranks that called the same
/// operations have the same hash.
///
/// A collective is one word: operation, root, reduction, type of a reduction, bytes. The last
/// RING_SIZE words of all communicators together are kept, to tell where ranks differ. Main thread.
class ORVEX_MACHINE_EXPORT CollectiveHistory {
public:
    using Name = CommunicatorLabel::Name;
    using enum CommunicatorLabel::Name;
    static constexpr unsigned RING_SIZE = 1024; ///< a power of 2
    static constexpr std::uint32_t GLOBAL_NUMBER = 1;
    /// Of a communicator whose operations aren't compared.
    static constexpr std::uint32_t NO_NUMBER = 0;
    static constexpr std::uint32_t NONE_LEFT = 0x7FFFFFFF; ///< above all numbers

    // ---- Words.

    static constexpr int CUSTOM_REDUCTION = 31;
    /// @param root       -1: the operation has none
    /// @param reduction  the wrapper's number of a reduction that the wrapper defines, CUSTOM_REDUCTION for
    ///                   another one, else 0
    /// @param type       of a reduction, by the wrapper's number, when the wrapper defines it; else 0: the
    ///                   number of another one is this rank's own
    static constexpr std::uint64_t wordOf(Collective collective, unsigned bytes, int root = -1,
                                          int reduction = 0, int type = 0) {
        return std::uint64_t(collective) << 59 | std::uint64_t(reduction & 31) << 54 |
               std::uint64_t(type & 63) << 48 | (std::uint64_t(root + 1) & 0x3FFFF) << 30 |
               (bytes & 0x3FFFFFFF);
    }
    static unsigned bytesOf(std::uint64_t word) { return word & 0x3FFFFFFF; }
    static int rootOf(std::uint64_t word) { return static_cast<int>((word >> 30) & 0x3FFFF) - 1; }
    /// As in "allReduce(8 bytes, sum)".
    static std::string describe(std::uint64_t word);
    static constexpr std::uint64_t extend(std::uint64_t hash, std::uint64_t word) {
        return std::rotl((hash ^ word) * FACTOR, TURN);
    }
    /// The hash before `word` was added.
    static std::uint64_t takeBack(std::uint64_t hash, std::uint64_t word);

    // ---- One communicator.

    CollectiveHistory(unsigned size, unsigned rank);
    ~CollectiveHistory();
    CollectiveHistory(const CollectiveHistory&) = delete;
    CollectiveHistory& operator=(const CollectiveHistory&) = delete;

    /// Defined beside Communicator, which this unit doesn't know.
    static CollectiveHistory& of(const Communicator& communicator);
    /// `number` is the same on all ranks of the communicator, and another one for each communicator.
    void setNumber(std::uint32_t number);
    std::uint32_t getNumber() const { return _number; }
    /// Of the collectives since the command began.
    std::uint32_t getCount() const { return _count; }
    /// The number of the next communicator that is made from this one. `key` tells apart those that are made
    /// at the same time.
    std::uint32_t makeNumber(std::uint32_t key);
    void setName(Name name);
    /// See CommunicatorLabel. The tag tells the words of this communicator, in this depth of commands, from
    /// all others.
    std::uint64_t getLabel() const { return _label; }

    /// This rank calls a collective.
    void note(std::uint64_t word) {
        const std::uint64_t position = _position.load(std::memory_order_relaxed);
        Entry& entry = _ring[position % RING_SIZE];
        entry.word.store(word, std::memory_order_release);
        entry.label.store(_label, std::memory_order_release);
        _position.store(position + 1, std::memory_order_release);
        _hash = extend(_hash, word);
        _latestCount.store(++_count, std::memory_order_release);
    }
    /// The same for callers outside this library, whose calls needn't be fast.
    void noteFromOutside(std::uint64_t word);
    /// The latest word of all, and the label of its communicator. Any thread, which looks again at the
    /// generation of OperationRecord afterwards.
    struct Latest {
        std::uint64_t word;
        std::uint64_t label;
        std::uint32_t count; ///< of its communicator's collectives since the command began
    };
    static Latest getLatest();
    /// Until release() getLatest() tells the latest word of now: the next ones are parts of it.
    static void hold();
    static void release() { _heldPosition.store(0, std::memory_order_release); }
    /// Collectives that this rank called in all, on all communicators. Any thread.
    static std::uint64_t countAll();

    // ---- All communicators of this process.

    static void beginCommand();
    static void endCommand();

    struct Summary {
        std::uint64_t hash = 0;        ///< of the global communicator
        std::uint64_t combination = 0; ///< of the others: the sum over all ranks is 0 when all agree
        std::uint32_t count = 0;       ///< of the global communicator
    };
    static Summary summarise();
    /// The part of the sum that this rank adds for the communicator `number`, also for one that is gone.
    static std::uint64_t contributionOf(std::uint32_t number);
    /// The smallest number above `number` of a communicator other than the global one that was used;
    /// NONE_LEFT when there is none.
    static std::uint32_t nextUsed(std::uint32_t number);

    /// The last words of one communicator.
    struct Recent {
        bool isMember = false;
        unsigned size = 0;        ///< of the communicator, 0 when it is gone
        std::uint32_t first = 0;  ///< index of the first word that is still known
        std::uint64_t before = 0; ///< the hash before it
        std::vector<std::uint64_t> words;
    };
    static Recent recall(std::uint32_t number);

private:
    static constexpr std::uint64_t FACTOR = 0x9E3779B97F4A7C15; // odd, so that it can be taken back
    static constexpr int TURN = 29;

    struct Entry {
        std::atomic<std::uint64_t> word;
        std::atomic<std::uint64_t> label;
    };
    struct Level;
    struct Registry;
    static Registry& registry();
    void relabel();
    std::uint64_t contribution(std::uint64_t hash) const;

    alignas(64) std::uint64_t _hash = 0; ///< one cache line for all that a collective touches
    std::uint64_t _label;
    std::uint32_t _count = 0;
    std::uint32_t _number = NO_NUMBER;
    std::uint32_t _creations = 0;
    unsigned _size;
    unsigned _rank;
    Name _name = UNNAMED;

    [[gnu::visibility("hidden")]] static constinit std::array<Entry, RING_SIZE> _ring;
    [[gnu::visibility("hidden")]] static constinit std::atomic<std::uint64_t> _position;
    [[gnu::visibility("hidden")]] static constinit std::atomic<std::uint32_t> _latestCount;
    [[gnu::visibility("hidden")]] static constinit std::atomic<std::uint64_t> _heldPosition; ///< 0: none
    [[gnu::visibility("hidden")]] static constinit std::atomic<std::uint32_t> _heldCount;
};
