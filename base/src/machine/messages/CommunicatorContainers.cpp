#include "machine/Communicator.h"

#include "kernel/Properties.h"

#include <boost/container/small_vector.hpp>

#include <iterator>
#include <string_view>

namespace {

/// Hands each rank's piece of a gathered text to `take`.
template <class Take>
void cutAt(const std::vector<unsigned>& lengths, std::string_view text, Take take) {
    std::size_t first = 0;
    for (std::size_t i = 0; i < lengths.size(); ++i) {
        take(i, text.substr(first, lengths[i]));
        first += lengths[i];
    }
}

void cutInto(std::vector<std::string>& all, const std::vector<unsigned>& lengths, std::string_view text) {
    all.resize(lengths.size());
    cutAt(lengths, text, [&](std::size_t i, std::string_view piece) { all[i] = piece; });
}

} // namespace

void Communicator::broadcast(std::vector<std::string>& values, unsigned root) {
    boost::container::small_vector<unsigned long long, 64> lengths;
    lengths.reserve(values.size());
    for (const std::string& value : values)
        lengths.push_back(value.size());
    broadcast(lengths, root);
    values.resize(lengths.size());
    for (std::size_t i = 0; i < values.size(); ++i) {
        values[i].resize(lengths[i]);
        _broadcast(viewOf<unsigned>(values[i].data(), values[i].size()), root);
    }
}

void Communicator::broadcast(Properties& value, unsigned root) {
    std::string text;
    if (_myRank == root)
        text = value.toString();
    broadcast(text, root);
    if (_myRank != root)
        value = Properties(text);
}

void Communicator::gather(const std::string& value, std::vector<std::string>& all, unsigned root) {
    std::string text;
    std::vector<unsigned> lengths;
    gatherVector(value, text, lengths, root);
    if (_myRank == root)
        cutInto(all, lengths, text);
}

void Communicator::gather(const Properties& value, std::vector<Properties>& all) {
    std::string text;
    std::vector<unsigned> lengths;
    gatherVector(value.toString(), text, lengths, _master);
    all.resize(lengths.size());
    cutAt(lengths, text, [&](std::size_t i, std::string_view piece) { all[i] = Properties(piece); });
}

void Communicator::allGather(const std::string& value, std::vector<std::string>& all) {
    std::string text;
    std::vector<unsigned> lengths;
    allGatherVector(value, text, lengths);
    cutInto(all, lengths, text);
}

void Communicator::allGather(const std::set<std::string>& in, std::set<std::string>& out) {
    std::string packed;
    std::vector<unsigned> packedLengths;
    packedLengths.reserve(in.size());
    std::size_t bytes = 0;
    for (const std::string& value : in)
        bytes += value.size();
    packed.reserve(bytes);
    for (const std::string& value : in) {
        packed += value;
        packedLengths.push_back(castCount<unsigned>(value.size()));
    }
    std::string text;
    std::vector<unsigned> lengths;
    std::vector<unsigned> counts;
    allGatherVector(packed, text, counts);
    allGatherVector(packedLengths, lengths, counts);
    std::set<std::string>::iterator hint = out.begin();
    // Each rank's strings are sorted, so the place after the last one is mostly right. Most ranks have the
    // same strings, and these must cost no node.
    std::string key;
    cutAt(lengths, text, [&](std::size_t, std::string_view piece) {
        if (hint != out.end() && *hint == piece) {
            ++hint;
            return;
        }
        key.assign(piece);
        hint = std::next(out.insert(hint, key));
    });
}
