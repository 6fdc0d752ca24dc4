#pragma once

/// An empty argument that only `Owner` can make: an operation that takes one can be called by `Owner` only.
template <class Owner>
class FriendKey {
    friend Owner;
    FriendKey() {}
};
