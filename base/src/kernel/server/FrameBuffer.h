#pragma once

#include <cstddef>
#include <optional>
#include <span>
#include <string_view>
#include <vector>

/// Cuts a stream of bytes into lines, holding no more than one line of the limit's size and one read.
class FrameBuffer {
public:
    explicit FrameBuffer(std::size_t limit) : _limit(limit) {}

    void setLimit(std::size_t limit) { _limit = limit; }
    std::size_t getLimit() const { return _limit; }

    /// Room for the next read; valid until the next call of anything.
    std::span<char> prepare();
    /// Takes over the first `size` bytes of that room.
    void commit(std::size_t size);
    /// The next complete line without its line end, valid until prepare(). None: read on, unless isTooLong().
    std::optional<std::string_view> next();
    /// True when the line that begins here, complete or not, exceeds the limit.
    bool isTooLong() const { return _tooLong; }
    /// Bytes received and not handed out.
    std::size_t size() const { return _end - _begin; }
    void clear();

private:
    static constexpr std::size_t READ_SIZE = std::size_t(16) << 10;
    static constexpr std::size_t KEPT_SIZE = std::size_t(256) << 10;

    std::size_t _limit;
    std::vector<char> _bytes;
    std::size_t _begin = 0;
    std::size_t _scanned = 0; ///< no line end in [_begin, _scanned)
    std::size_t _end = 0;
    bool _tooLong = false;
};
