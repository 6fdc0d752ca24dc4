#pragma once

#include <atomic>
#include <cstddef>

/// Counts the bytes of requests that all clients of a server together have sent and that aren't answered.
/// Any thread.
class RequestBudget {
public:
    /// @param limit  [bytes]
    explicit RequestBudget(std::size_t limit) : _limit(limit) {}

    bool isFull() const { return _received + _queued > _limit; }
    /// Whether any of it is on its way to the commands: then answers will make room.
    bool hasQueued() const { return _queued > 0; }

    /// Notes that one connection holds `now` bytes that it hasn't handed out, no longer `before`.
    void moveReceived(std::size_t before, std::size_t now) { _received += now - before; }
    void addQueued(std::size_t size) { _queued += size; }
    void removeQueued(std::size_t size) { _queued -= size; }

private:
    const std::size_t _limit;
    std::atomic<std::size_t> _received{0};
    std::atomic<std::size_t> _queued{0};
};
