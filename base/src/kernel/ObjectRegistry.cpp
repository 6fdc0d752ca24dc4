#include "kernel/ObjectRegistry.h"

#include "kernel/Raise.h"

ObjectRegistry& ObjectRegistry::getSingleton() {
    static ObjectRegistry* const singleton = new ObjectRegistry;
    return *singleton;
}

ClientServerObject* ObjectRegistry::hasObject(const std::string& key) const {
    const auto found = _byKey.find(key);
    return found != _byKey.end() ? found->second : nullptr;
}

ClientServerObject* ObjectRegistry::hasObject(long long id) const {
    const auto found = _byId.find(id);
    return found != _byId.end() ? found->second->second : nullptr;
}

void ObjectRegistry::add(const std::string& key, long long id, ClientServerObject& object) {
    ORVEX_ASSERT(!key.empty(), "ObjectRegistry: an object needs a key");
    ORVEX_ASSERT(!hasObject(key), "ObjectRegistry: there is an object with the key " + key + " already");
    const auto other = _byId.find(id);
    ORVEX_ASSERT(other == _byId.end(), "ObjectRegistry: the object with the key " + other->second->first +
                                           " has the id " + std::to_string(id) + " of the new object " + key);
    const auto entry = _byKey.emplace(key, &object).first;
    try {
        _byId.emplace(id, entry);
    } catch (...) { // no memory
        _byKey.erase(entry);
        throw;
    }
}

void ObjectRegistry::remove(const std::string& key, long long id) {
    _byId.erase(id);
    _byKey.erase(key);
}
