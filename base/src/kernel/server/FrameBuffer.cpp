#include "kernel/server/FrameBuffer.h"

#include <algorithm>
#include <cstring>

std::span<char> FrameBuffer::prepare() {
    if (_begin == _end) {
        _begin = _scanned = _end = 0;
        if (_bytes.size() > KEPT_SIZE) // a large request has passed: don't keep its memory for the small ones
            std::vector<char>().swap(_bytes);
    } else if (_begin > 0 && _bytes.size() - _end < READ_SIZE) {
        std::memmove(_bytes.data(), _bytes.data() + _begin, _end - _begin);
        _scanned -= _begin;
        _end -= _begin;
        _begin = 0;
    }
    if (_bytes.size() - _end < READ_SIZE)
        _bytes.resize(_end + std::max(READ_SIZE, _end / 2));
    return {_bytes.data() + _end, _bytes.size() - _end};
}

void FrameBuffer::commit(std::size_t size) {
    _end += size;
}

std::optional<std::string_view> FrameBuffer::next() {
    const char* const found =
        _scanned == _end
            ? nullptr
            : static_cast<const char*>(std::memchr(_bytes.data() + _scanned, '\n', _end - _scanned));
    if (!found) {
        _scanned = _end;
        _tooLong = _end - _begin > _limit;
        return std::nullopt;
    }
    const std::size_t length = static_cast<std::size_t>(found - (_bytes.data() + _begin));
    if (length > _limit) {
        _tooLong = true;
        return std::nullopt;
    }
    const std::string_view line(_bytes.data() + _begin, length);
    _begin = _scanned = _begin + length + 1;
    return line;
}

void FrameBuffer::clear() {
    std::vector<char>().swap(_bytes);
    _begin = _scanned = _end = 0;
    _tooLong = false;
}
