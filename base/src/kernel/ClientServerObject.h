#pragma once

#include "kernel/CoreObject.h"
#include "kernel/KernelExport.h"

#include <set>
#include <string>

/// An object that client and server know by a key and by a number. Every rank holds a copy of each, with the
/// same key, id and parent: GlobalDebug checks that.
///
/// The constructor enters the object into the ObjectRegistry, and the destructor takes it out. Local; main
/// thread. All ranks make and end the same objects in the same order.
class ORVEX_KERNEL_EXPORT ClientServerObject : public CoreObject {
public:
    /// @param key          not empty; no other object has it
    /// @param id           no other object has it
    /// @param description  for people, in messages
    /// @param parent       null when it has none; borrowed. A parent may end before its children: these have
    ///                     none then
    /// @throw InternalError when the key is empty, or another object has the key or the id; nothing is
    /// entered then
    ClientServerObject(std::string key, long long id, std::string description,
                       ClientServerObject* parent = nullptr);

    const std::string& getKey() const { return _key; }
    long long getId() const { return _id; }
    const std::string& getDescription() const { return _description; }
    /// Null when it has none.
    ClientServerObject* getParent() const { return _parent; }

protected:
    ~ClientServerObject() override;

private:
    const std::string _key;
    const long long _id;
    const std::string _description;
    ClientServerObject* _parent;
    std::set<ClientServerObject*> _children;
};
