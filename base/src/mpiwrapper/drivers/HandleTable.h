#pragma once

#include <cstddef>
#include <vector>

/// Gives 32-bit handles to the MPI's own handles: an index into a dense array, so constant time both ways and
/// no allocation while freed slots are there to be used again. Slot 0 holds the MPI's null handle for good.
template <class Native>
class HandleTable {
public:
    HandleTable() = default;

    /// Forgets everything; the slots from 0 hold `fixed`, of which the first is the null handle.
    void reset(const std::vector<Native>& fixed, std::size_t capacity) {
        _items = fixed;
        _items.reserve(capacity);
        _free.clear();
        _free.reserve(capacity);
        _numberFixed = fixed.size();
    }

    /// The MPI's null handle for a number that isn't a live handle.
    Native get(int handle) const {
        const auto index = static_cast<unsigned>(handle);
        return _items[index < _items.size() ? index : 0];
    }

    bool isNullOrLive(int handle) const { return handle == 0 || get(handle) != _items[0]; }

    int add(Native native) {
        if (native == _items[0])
            return 0;
        if (!_free.empty()) {
            const int handle = _free.back();
            _free.pop_back();
            _items[static_cast<unsigned>(handle)] = native;
            return handle;
        }
        _items.push_back(native);
        return static_cast<int>(_items.size() - 1);
    }

    /// For an MPI that has put another object in the place of a live one. Fixed handles stay.
    void set(int handle, Native native) {
        if (isMade(handle) && native != _items[0])
            _items[static_cast<unsigned>(handle)] = native;
    }

    /// Fixed handles stay, and what is free already is free once.
    void remove(int handle) {
        if (!isMade(handle))
            return;
        _items[static_cast<unsigned>(handle)] = _items[0];
        _free.push_back(handle);
    }

    /// 0 when it isn't here. Takes time in proportion to the number of handles.
    int find(Native native) const {
        for (std::size_t i = 1; i < _items.size(); ++i)
            if (_items[i] == native)
                return static_cast<int>(i);
        return 0;
    }

private:
    /// Whether add() gave the handle and it is alive.
    bool isMade(int handle) const {
        return static_cast<unsigned>(handle) >= _numberFixed && get(handle) != _items[0];
    }

    std::vector<Native> _items;
    std::vector<int> _free;
    std::size_t _numberFixed = 0;
};
