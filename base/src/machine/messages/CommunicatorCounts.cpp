#include "machine/Communicator.h"

#include <algorithm>
#include <iostream>
#include <limits>
#include <numeric>

void Communicator::setMaxBufferSize(std::size_t bytes) {
    std::cout << "Warning, modifying the maximum message size from " << _maxBufferSize << " to " << bytes
              << std::endl;
    _maxBufferSize = bytes;
}

void Communicator::raiseOversize(std::size_t size, unsigned typeSize) {
    raiseInternalError(_oversizedMessageString + "\nMessage count = " + std::to_string(size) +
                           "\nMessage size = " + std::to_string(size * typeSize) + "\nMax count = " +
                           std::to_string(MAX_COUNT) + ".\n" + _oversizedMessageHint + "\n",
                       "false", __FILE__, __LINE__);
}

void Communicator::checkMessageCount(unsigned long long size, const char* condition) {
    ORVEX_ASSERT_AS(size <= std::numeric_limits<mssg_count_t>::max(), condition, _oversizedMessageString);
}

void Communicator::checkBlocks(bool here, std::size_t sendSize, std::size_t blockSize) const {
    ORVEX_ASSERT_AS(!here || sendSize == _size * blockSize, "send.size() == size()*recv.size()",
                    "Communicator::scatter : mismatched counts");
}

void Communicator::checkBlocks(bool here, std::size_t sendSize, std::size_t total,
                               std::size_t countsSize) const {
    ORVEX_ASSERT_AS(!here || (countsSize == _size && sendSize == total),
                    "counts.size() == size() && send.size() == total",
                    "Communicator : mismatched block counts");
}

void Communicator::checkEqualBlocks(std::size_t sendSize) const {
    ORVEX_ASSERT_AS(sendSize % _size == 0, "send.size() % size() == 0",
                    "Communicator::allToAll : mismatched counts");
}

void Communicator::checkContribution(unsigned long long count) {
    ORVEX_ASSERT_AS(count <= std::numeric_limits<unsigned>::max(),
                    "s.size <= std::numeric_limits<typename PrimitiveArray::Array<C>::t>::max()",
                    "Overflow in recv counts container");
}

unsigned long long Communicator::gatherCounts(unsigned long long count, std::vector<unsigned>& counts,
                                              unsigned root) {
    const bool here = _myRank == root;
    if (here)
        counts.resize(_size);
    checkContribution(count);
    const auto mine = static_cast<unsigned>(count);
    _gather(viewOf<unsigned>(&mine, 1), viewOf<unsigned>(counts.data(), here ? _size : 0), root);
    return here ? placeBlocks(counts) : 0;
}

unsigned long long Communicator::allGatherCounts(unsigned long long count, std::vector<unsigned>& counts) {
    counts.resize(_size);
    checkContribution(count);
    const auto mine = static_cast<unsigned>(count);
    _allGather(viewOf<unsigned>(&mine, 1), viewOf<unsigned>(counts.data(), _size));
    return placeBlocks(counts);
}

unsigned long long Communicator::placeBlocks(const std::vector<unsigned>& counts) {
    const unsigned long long total = std::accumulate(counts.begin(), counts.end(), 0ull);
    constexpr unsigned long long bound = std::numeric_limits<unsigned>::max();
    if (total > bound)
        raiseInternalError(_oversizedMessageString + "\nMessage count = " + std::to_string(total) +
                               "\nMax count = " + std::to_string(bound) + ".\n" + _oversizedMessageHint +
                               "\n",
                           "false", __FILE__, __LINE__);
    _displacements.resize(_size);
    getDefaultDisplacements(counts.data(), _displacements.data());
    return total;
}

void Communicator::getDefaultDisplacements(const unsigned* counts, unsigned* displacements) const {
    displacements[0] = 0;
    for (unsigned i = 1; i < _size; ++i)
        displacements[i] = displacements[i - 1] + counts[i - 1];
}

void Communicator::addStrideLength(const unsigned* in, unsigned* out, unsigned stride) const {
    if (stride != 1)
        for (unsigned i = 0; i < _size; ++i)
            out[i] = in[i] * stride;
}

void Communicator::subtractStrideLength(const unsigned* in, unsigned* out, unsigned stride) const {
    if (stride != 1)
        for (unsigned i = 0; i < _size; ++i)
            out[i] = in[i] / stride;
}

Communicator::ElementCounts::ElementCounts(const Communicator& communicator, const unsigned* valueCounts,
                                           const unsigned* valueDisplacements, unsigned stride)
    : counts(valueCounts), displacements(valueDisplacements) {
    if (!counts)
        return;
    const unsigned ranks = communicator._size;
    if (!displacements) {
        _displacements.resize(ranks);
        communicator.getDefaultDisplacements(counts, _displacements.data());
        displacements = _displacements.data();
    }
    for (unsigned i = 0; i < ranks; ++i)
        total = std::max(total, (static_cast<unsigned long long>(displacements[i]) + counts[i]) * stride);
    if (stride != 1) {
        _counts.resize(ranks);
        std::vector<unsigned> scaled(ranks);
        communicator.addStrideLength(counts, _counts.data(), stride);
        communicator.addStrideLength(displacements, scaled.data(), stride);
        _displacements.swap(scaled);
        counts = _counts.data();
        displacements = _displacements.data();
    }
}
