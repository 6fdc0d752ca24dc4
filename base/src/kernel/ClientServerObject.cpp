#include "kernel/ClientServerObject.h"

#include "kernel/ObjectRegistry.h"

#include <utility>

ClientServerObject::ClientServerObject(std::string key, long long id, std::string description,
                                       ClientServerObject* parent)
    : _key(std::move(key)), _id(id), _description(std::move(description)), _parent(parent) {
    ObjectRegistry::getSingleton().add(_key, _id, *this);
    if (_parent == nullptr)
        return;
    try {
        _parent->_children.insert(this);
    } catch (...) { // no memory
        ObjectRegistry::getSingleton().remove(_key, _id);
        throw;
    }
}

ClientServerObject::~ClientServerObject() {
    for (ClientServerObject* child : _children)
        child->_parent = nullptr;
    if (_parent != nullptr)
        _parent->_children.erase(this);
    ObjectRegistry::getSingleton().remove(_key, _id);
}
