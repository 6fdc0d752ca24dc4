#pragma once

#include "kernel/KernelExport.h"

#include <cstddef>
#include <map>
#include <string>

class ClientServerObject;

/// All ClientServerObjects of this process, which enter themselves. Local; main thread.
class ORVEX_KERNEL_EXPORT ObjectRegistry {
public:
    using Objects = std::map<std::string, ClientServerObject*>;

    /// Lives to the end of the process: objects may end while it does.
    static ObjectRegistry& getSingleton();

    /// Iterates over pairs of key and object, in the order of the keys. An object that is made or ended
    /// meanwhile leaves the iterators of the others valid.
    Objects::const_iterator begin() const { return _byKey.begin(); }
    Objects::const_iterator end() const { return _byKey.end(); }
    std::size_t size() const { return _byKey.size(); }

    /// The object with this key, null when there is none. It stays its owner's.
    ClientServerObject* hasObject(const std::string& key) const;
    /// The object with this id, null when there is none. It stays its owner's.
    ClientServerObject* hasObject(long long id) const;

private:
    friend class ClientServerObject;
    ObjectRegistry() = default;

    void add(const std::string& key, long long id, ClientServerObject& object);
    void remove(const std::string& key, long long id);

    Objects _byKey;
    std::map<long long, Objects::const_iterator> _byId;
};
