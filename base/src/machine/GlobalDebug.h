#pragma once

#include "machine/MachineExport.h"

#include <cstddef>
#include <iosfwd>
#include <string>
#include <vector>

class ClientServerObject;
class Properties;

/// Checks that all ranks hold the same ClientServerObjects as the master. For debugging: no normal run needs
/// it. The command GlobalDebug.VerifyIdConsistency runs the check of all ids.
///
/// The checks do nothing in a serial process. In a job they are collective over the global communicator. Main
/// thread, outside serial-critical code. The ObjectRegistry of no rank may change meanwhile.
///
/// A difference on any rank is a SystemError on all ranks. Its message tells the differences of the rank
/// itself; it is empty on a rank that holds what the master holds. A client gets the message of the lowest
/// rank that has one. Nothing is repaired.
class ORVEX_MACHINE_EXPORT GlobalDebug {
public:
    GlobalDebug();
    GlobalDebug(const GlobalDebug&);
    GlobalDebug& operator=(const GlobalDebug&);
    virtual ~GlobalDebug();

    /// Checks that each rank holds objects with the same keys. @throw SystemError on all ranks
    void assertClientServerObjectsSynchronized() const;
    /// Checks that each object has a parent with the same key. @throw SystemError on all ranks
    void assertClientServerObjectParentsSynchronized() const;
    /// Checks that the master's object has the same key and id on each rank.
    /// @param object  matters on the master only; null fails
    /// @throw SystemError on all ranks
    void checkCsoIdConsistency(ClientServerObject* object) const;
    /// Checks that each object of the master has the same key and id on each rank.
    /// @param command  the properties of the command at work, which the message names. Null: the message
    /// names
    ///                 none. The check is left out, on all ranks, when the master's has no command name, see
    ///                 TransactionObservable::_cmdNameTag
    /// @throw SystemError on all ranks
    void checkCsoIdConsistency(Properties* command) const;

protected:
    // ---- The registry of this rank, in the order of its keys. Local.

    void fillRegistryKeys(std::vector<std::string>& keys) const;
    /// For each object the key of its parent, empty when it has none.
    void fillRegistryParentKeys(std::vector<std::string>& keys) const;
    void fillRegistryKeysWithIds(std::vector<std::string>& keys, std::vector<long long>& ids) const;

    // ---- Comparisons of what the master holds with the registry of this rank. Local. Each writes the
    // differences into its last argument, and returns whether there are none.

    bool compareSize(std::size_t masterCount, std::size_t localCount, std::ostream& stream) const;
    bool missingFromSlave(const std::vector<std::string>& keys, std::ostream& stream) const;
    bool missingFromMaster(const std::vector<std::string>& keys, std::ostream& stream) const;
    bool compareKeysToRegistry(const std::vector<std::string>& keys, std::string& message) const;
    bool compareParentKeysToRegistry(const std::vector<std::string>& parentKeys, std::string& message) const;
    bool verifyIdConsistency(const std::string& key, long long id, std::stringstream& out) const;
    /// @param ids  one for each key
    bool verifyIdConsistency(const std::vector<std::string>& keys, const std::vector<long long>& ids,
                             std::string& message) const;
};
