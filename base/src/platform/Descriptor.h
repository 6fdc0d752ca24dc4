#pragma once

#include <unistd.h>
#include <utility>

/// Owns a file descriptor. Private to the platform layer.
class Descriptor {
public:
    Descriptor() = default;
    explicit Descriptor(int descriptor) : _descriptor(descriptor) {}
    Descriptor(Descriptor&& other) noexcept : _descriptor(other.release()) {}
    Descriptor& operator=(Descriptor&& other) noexcept {
        if (this != &other)
            reset(other.release());
        return *this;
    }
    ~Descriptor() { reset(); }

    int get() const { return _descriptor; }
    explicit operator bool() const { return _descriptor >= 0; }
    int release() { return std::exchange(_descriptor, -1); }
    /// A failing close has no remedy: the descriptor is gone in any case.
    void reset(int descriptor = -1) {
        if (_descriptor >= 0)
            ::close(_descriptor);
        _descriptor = descriptor;
    }

private:
    int _descriptor = -1;
};
