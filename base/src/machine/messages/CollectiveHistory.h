#pragma once

#include "machine/MachineExport.h"
#include "machine/messages/MessageOperation.h"

#include <array>
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
    enum Name : std::uint8_t { UNNAMED, GLOBAL, COMMAND, HOST, SOCKET, NUMA_NODE };
    static constexpr unsigned RING_SIZE = 1024; ///< a power of 2
    static constexpr std::uint32_t GLOBAL_NUMBER = 1;
    /// Of a communicator whose operations aren't compared.
    static constexpr std::uint32_t NO_NUMBER = 0;

    // ---- Words.

    /// @param root      -1: the operation has none
    /// @param operation of a reduction, as the wrapper knows it, else 0
    /// @param type      of a reduction, else 0
    static constexpr std::uint64_t wordOf(Collective collective, unsigned bytes, int root = -1,
                                          int operation = 0, int type = 0) {
        constexpr int custom = 31;
        const auto reduction = std::uint64_t(operation <= 12 ? operation : custom);
        const auto kind = std::uint64_t(type <= 25 ? type : 0); // the number of another type is this rank's
        return std::uint64_t(collective) << 59 | reduction << 54 | kind << 48 |
               (std::uint64_t(root + 1) & 0x3FFFF) << 30 | (bytes & 0x3FFFFFFF);
    }
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
    /// The number of the next communicator that is made from this one. `key` tells apart those that are made
    /// at the same time.
    std::uint32_t makeNumber(std::uint32_t key);
    void setName(Name name) { _label = std::uint64_t(name) << 32 | _size; }
    /// Name and size in one word, for OperationRecord.
    std::uint64_t getLabel() const { return _label; }
    /// As in "global, 7 ranks"; empty for 0.
    static std::string describeLabel(std::uint64_t label);

    /// This rank calls a collective.
    void note(std::uint64_t word) {
        _hash = extend(_hash, word);
        _ring[_position++ % RING_SIZE] = {word, _tag, _count++};
    }

    // ---- All communicators of this process.

    static void beginCommand();
    static void endCommand();

    struct Summary {
        std::uint64_t hash = 0;        ///< of the global communicator
        std::uint64_t combination = 0; ///< of the others: the sum over all ranks is 0 when all agree
        std::uint32_t count = 0;       ///< of the global communicator
    };
    static Summary summarise();
    /// What this rank adds to the sum for the communicator `number`, also for one that is gone.
    static std::uint64_t contributionOf(std::uint32_t number);
    /// The smallest number above `number` of a communicator other than the global one that was used;
    /// 0xFFFFFFFF when there is none.
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
        std::uint64_t word;
        std::uint32_t tag;
        std::uint32_t index;
    };
    struct Level;
    struct Registry;
    static Registry& registry();
    void retag();
    std::uint64_t contribution(std::uint64_t hash) const;

    std::uint64_t _hash = 0;
    std::uint32_t _count = 0;
    std::uint32_t _tag = NO_NUMBER; ///< the number, and the depth of the command
    std::uint64_t _label;
    std::uint32_t _number = NO_NUMBER;
    std::uint32_t _creations = 0;
    unsigned _size;
    unsigned _rank;

    [[gnu::visibility("hidden")]] static constinit std::array<Entry, RING_SIZE> _ring;
    [[gnu::visibility("hidden")]] static constinit std::uint64_t _position;
};
