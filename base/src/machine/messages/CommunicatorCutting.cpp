#include "machine/Communicator.h"

#include "mpiwrapper/OxmMpi.h"

#include <algorithm>
#include <cstring>
#include <memory>
#include <vector>

// A message that is too large goes in two halves, each cut again until it fits: n elements as n / 2 and the
// rest. Whether to cut is decided on values that all ranks hold alike, so all make the same sequence of
// calls.

namespace {

template <class SizeType>
using ConstView = Communicator::ConstBufferBase<SizeType>;
template <class SizeType>
using View = Communicator::BufferBase<SizeType>;

/// A temporary buffer of elements of one kind, where this rank needs one.
class Room {
public:
    template <class Like>
    Room(std::size_t elements, const Like& like)
        : _bytes(elements != 0 ? std::make_unique_for_overwrite<char[]>(elements * like.typeSize) : nullptr),
          _type(like.type), _typeSize(like.typeSize) {}

    char* data() const { return _bytes.get(); }
    View<unsigned> view(std::size_t elements) const {
        return {_bytes.get(), static_cast<unsigned>(elements), _type, _typeSize};
    }

private:
    std::unique_ptr<char[]> _bytes;
    int _type;
    unsigned _typeSize;
};

/// Copies block after block from the front of `packed` to its place in `spread`, or back.
/// @param countOf, positionOf  of each rank's block, in elements
template <class CountOf, class PositionOf>
void unpack(const char* packed, const View<unsigned>& spread, unsigned ranks, CountOf countOf,
            PositionOf positionOf) {
    for (unsigned i = 0; i < ranks; ++i) {
        const std::size_t bytes = static_cast<std::size_t>(countOf(i)) * spread.typeSize;
        if (bytes != 0)
            std::memcpy(static_cast<char*>(spread.data) + positionOf(i) * spread.typeSize, packed, bytes);
        packed += bytes;
    }
}

template <class CountOf, class PositionOf>
void pack(const ConstView<unsigned>& spread, char* packed, unsigned ranks, CountOf countOf,
          PositionOf positionOf) {
    for (unsigned i = 0; i < ranks; ++i) {
        const std::size_t bytes = static_cast<std::size_t>(countOf(i)) * spread.typeSize;
        if (bytes != 0)
            std::memcpy(packed, static_cast<const char*>(spread.data) + positionOf(i) * spread.typeSize,
                        bytes);
        packed += bytes;
    }
}

/// The halves of all ranks' blocks. Empty on a rank that has no counts.
struct Halves {
    Halves(const unsigned* counts, unsigned ranks)
        : lowerCounts(ranks), upperCounts(ranks), lowerDisplacements(ranks), upperDisplacements(ranks) {
        for (unsigned i = 0; i < ranks; ++i) {
            lowerCounts[i] = counts[i] / 2;
            upperCounts[i] = counts[i] - lowerCounts[i];
            lowerDisplacements[i] = static_cast<unsigned>(lowerTotal);
            upperDisplacements[i] = static_cast<unsigned>(upperTotal);
            lowerTotal += lowerCounts[i];
            upperTotal += upperCounts[i];
        }
    }

    std::vector<unsigned> lowerCounts;
    std::vector<unsigned> upperCounts;
    std::vector<unsigned> lowerDisplacements;
    std::vector<unsigned> upperDisplacements;
    std::size_t lowerTotal = 0;
    std::size_t upperTotal = 0;
};

/// Puts into a room what the receiver has, where its elements may have gaps: what comes leaves the gaps
/// alone, and they must hold the same afterwards.
template <class CountOf, class PositionOf>
void keepGaps(const View<unsigned>& spread, char* packed, unsigned ranks, CountOf countOf,
              PositionOf positionOf) {
    if (spread.type > OXM_MPI_LONG_DOUBLE_INT)
        pack(ConstView<unsigned>(spread), packed, ranks, countOf, positionOf);
}

/// Gathers equal blocks in two passes. @param here  whether the result comes to this rank
template <class Pass>
void gatherHalves(ConstView<unsigned> lowerSend, ConstView<unsigned> upperSend, const View<unsigned>& recvbuf,
                  unsigned ranks, bool here, Pass pass) {
    const std::size_t lower = lowerSend.size;
    const std::size_t upper = upperSend.size;
    const std::size_t block = lower + upper;
    const std::size_t blocks = here ? ranks : 0;
    const Room room(upper * blocks, recvbuf);

    const auto receive = [&](ConstView<unsigned> send, std::size_t first) {
        const std::size_t size = send.size;
        const auto countOf = [=](unsigned) { return size; };
        const auto positionOf = [=](unsigned i) { return i * block + first; };
        const unsigned receivers = here ? ranks : 0;
        keepGaps(recvbuf, room.data(), receivers, countOf, positionOf);
        pass(send, room.view(size * blocks));
        unpack(room.data(), recvbuf, receivers, countOf, positionOf);
    };
    receive(lowerSend, 0);
    receive(upperSend, lower);
}

/// Gathers blocks of any length in two passes. @param pass  gets the half, its buffer, counts and
/// displacements
template <class LowerPass, class UpperPass>
void gatherVectorHalves(const View<unsigned>& recvbuf, const unsigned* recvCounts,
                        const unsigned* displacements, unsigned ranks, LowerPass lowerPass,
                        UpperPass upperPass) {
    const Halves halves(recvCounts, ranks);
    const auto receive = [&](std::size_t total, const std::vector<unsigned>& counts,
                             const std::vector<unsigned>& packedAt, auto pass, auto positionOf) {
        const Room room(total, recvbuf);
        const auto countOf = [&](unsigned i) { return counts[i]; };
        keepGaps(recvbuf, room.data(), ranks, countOf, positionOf);
        pass(room.view(total), counts.data(), packedAt.data());
        unpack(room.data(), recvbuf, ranks, countOf, positionOf);
    };
    receive(halves.lowerTotal, halves.lowerCounts, halves.lowerDisplacements, lowerPass,
            [&](unsigned i) { return std::size_t{displacements[i]}; });
    receive(halves.upperTotal, halves.upperCounts, halves.upperDisplacements, upperPass,
            [&](unsigned i) { return std::size_t{displacements[i]} + halves.lowerCounts[i]; });
}

} // namespace

bool Communicator::isDivisible(const unsigned* counts) const {
    return std::any_of(counts, counts + _size, [](unsigned count) { return count > 1; });
}

std::size_t Communicator::shareTotal(const ConstBufferBase<unsigned>& spread, const unsigned* counts,
                                     unsigned root) {
    unsigned long long total = 0;
    if (_myRank == root && (!exceedsSizeLimits(spread.size, spread.typeSize) || isDivisible(counts)))
        total = spread.size;
    _broadcast(viewOf<unsigned>(&total, 1), root);
    return total;
}

void Communicator::cutGather(ConstBufferBase<unsigned> sendbuf, BufferBase<unsigned> recvbuf, unsigned root) {
    const unsigned lower = sendbuf.size / 2;
    gatherHalves(partOf(sendbuf, 0u, lower), partOf(sendbuf, lower, sendbuf.size - lower), recvbuf, _size,
                 _myRank == root, [&](ConstBufferBase<unsigned> part, BufferBase<unsigned> result) {
                     _gather(part, result, root);
                 });
}

void Communicator::cutAllGather(ConstBufferBase<unsigned> sendbuf, BufferBase<unsigned> recvbuf) {
    const unsigned lower = sendbuf.size / 2;
    gatherHalves(
        partOf(sendbuf, 0u, lower), partOf(sendbuf, lower, sendbuf.size - lower), recvbuf, _size, true,
        [&](ConstBufferBase<unsigned> part, BufferBase<unsigned> result) { _allGather(part, result); });
}

void Communicator::cutScatter(ConstBufferBase<unsigned> sendbuf, BufferBase<unsigned> recvbuf,
                              unsigned root) {
    const std::size_t block = recvbuf.size;
    const std::size_t lower = block / 2;
    const std::size_t upper = block - lower;
    const bool here = _myRank == root;
    const std::size_t blocks = here ? _size : 0;
    const Room room(upper * blocks, sendbuf);

    const auto scatterPart = [&](std::size_t first, std::size_t size) {
        if (here)
            pack(
                sendbuf, room.data(), _size, [=](unsigned) { return size; },
                [=](unsigned i) { return i * block + first; });
        _scatter(room.view(size * blocks),
                 partOf(recvbuf, static_cast<unsigned>(first), static_cast<unsigned>(size)), root);
    };
    scatterPart(0, lower);
    scatterPart(lower, upper);
}

void Communicator::_gatherVector(ConstBufferBase<unsigned> sendbuf, BufferBase<unsigned> recvbuf,
                                 const unsigned* recvCounts, const unsigned* displacements, unsigned root) {
    ORVEX_ASSERT(sendbuf.type == recvbuf.type, "Communicator::gatherVector");
    const std::size_t total = shareTotal(recvbuf, recvCounts, root);
    if (exceedsSizeLimits(total, sendbuf.typeSize))
        cutGatherVector(sendbuf, recvbuf, recvCounts, displacements, root, total);
    else
        _gatherVector(wholeOf(sendbuf), wholeOf(recvbuf), recvCounts, displacements, root);
}

void Communicator::cutGatherVector(ConstBufferBase<unsigned> sendbuf, BufferBase<unsigned> recvbuf,
                                   const unsigned* recvCounts, const unsigned* displacements, unsigned root,
                                   std::size_t total) {
    const unsigned lower = sendbuf.size / 2;
    const auto gatherPart = [&](ConstBufferBase<unsigned> part, std::size_t atMost) {
        return [=, this](BufferBase<unsigned> result, const unsigned* counts, const unsigned* positions) {
            if (exceedsSizeLimits(atMost, part.typeSize))
                _gatherVector(part, result, counts, positions, root);
            else
                _gatherVector(wholeOf(part), wholeOf(result), counts, positions, root);
        };
    };
    // Only the root knows how many upper halves are one element longer than the lower ones.
    gatherVectorHalves(recvbuf, recvCounts, displacements, _myRank == root ? _size : 0,
                       gatherPart(partOf(sendbuf, 0u, lower), total / 2),
                       gatherPart(partOf(sendbuf, lower, sendbuf.size - lower), total / 2 + _size));
}

void Communicator::cutAllGatherVector(ConstBufferBase<unsigned> sendbuf, BufferBase<unsigned> recvbuf,
                                      const unsigned* recvCounts, const unsigned* displacements) {
    const unsigned lower = sendbuf.size / 2;
    const auto gatherPart = [&](ConstBufferBase<unsigned> part) {
        return [=, this](BufferBase<unsigned> result, const unsigned* counts, const unsigned* positions) {
            _allGatherVector(part, result, counts, positions);
        };
    };
    gatherVectorHalves(recvbuf, recvCounts, displacements, _size, gatherPart(partOf(sendbuf, 0u, lower)),
                       gatherPart(partOf(sendbuf, lower, sendbuf.size - lower)));
}

void Communicator::_scatterVector(ConstBufferBase<unsigned> sendbuf, const unsigned* sendCounts,
                                  const unsigned* displacements, BufferBase<unsigned> recvbuf,
                                  unsigned root) {
    ORVEX_ASSERT(sendbuf.type == recvbuf.type, "Communicator::scatterVector");
    const std::size_t total = shareTotal(sendbuf, sendCounts, root);
    if (exceedsSizeLimits(total, sendbuf.typeSize))
        cutScatterVector(sendbuf, sendCounts, displacements, recvbuf, root, total);
    else
        _scatterVector(wholeOf(sendbuf), sendCounts, displacements, wholeOf(recvbuf), root);
}

void Communicator::cutScatterVector(ConstBufferBase<unsigned> sendbuf, const unsigned* sendCounts,
                                    const unsigned* displacements, BufferBase<unsigned> recvbuf,
                                    unsigned root, std::size_t total) {
    const unsigned ranks = _myRank == root ? _size : 0;
    const Halves halves(sendCounts, ranks);
    const auto scatterPart = [&](const std::vector<unsigned>& counts, const std::vector<unsigned>& positions,
                                 std::size_t partTotal, bool isUpper, BufferBase<unsigned> part,
                                 std::size_t atMost) {
        const Room room(partTotal, sendbuf);
        pack(
            sendbuf, room.data(), ranks, [&](unsigned i) { return counts[i]; },
            [&](unsigned i) {
                return static_cast<std::size_t>(displacements[i]) + (isUpper ? halves.lowerCounts[i] : 0u);
            });
        const ConstBufferBase<unsigned> source = room.view(partTotal);
        if (exceedsSizeLimits(atMost, part.typeSize))
            _scatterVector(source, counts.data(), positions.data(), part, root);
        else
            _scatterVector(wholeOf(source), counts.data(), positions.data(), wholeOf(part), root);
    };
    const unsigned lower = recvbuf.size / 2;
    scatterPart(halves.lowerCounts, halves.lowerDisplacements, halves.lowerTotal, false,
                partOf(recvbuf, 0u, lower), total / 2);
    scatterPart(halves.upperCounts, halves.upperDisplacements, halves.upperTotal, true,
                partOf(recvbuf, lower, recvbuf.size - lower), total / 2 + _size);
}
