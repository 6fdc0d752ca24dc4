#include "machine/GlobalDebug.h"

#include "machine/Communicator.h"
#include "machine/GlobalErrorCheck.h"
#include "machine/MachineGround.h"

#include "kernel/ClientServerObject.h"
#include "kernel/ObjectRegistry.h"
#include "kernel/Properties.h"
#include "kernel/TransactionObservable.h"
#include "platform/StringHelper.h"

#include <set>
#include <sstream>
#include <string_view>

namespace {

constexpr const char* PREFIX = "GlobalDebug: ";

const ObjectRegistry& registry() {
    return ObjectRegistry::getSingleton();
}

std::string parentKeyOf(const ClientServerObject& object) {
    const ClientServerObject* const parent = object.getParent();
    return parent != nullptr ? parent->getKey() : std::string();
}

/// The error of this rank when another one, or this one, found a difference. It is marked as one that all
/// ranks raise, so that an empty message doesn't stand before the one that tells the difference.
SystemError makeError(const std::string& message) {
    return SystemError(message, Error::RECOVERABLE_SEVERITY, Properties(), Error::DEFAULT_ERROR_TYPE, true);
}

/// Writes the keys behind `title`. @return whether there are none
bool writeMissing(const char* title, const std::vector<std::string>& missing, std::ostream& stream) {
    if (!missing.empty())
        stream << title << StringHelper::join(missing, ", ") << '\n';
    return missing.empty();
}

/// Puts the prefix before a text that isn't empty. @return whether it is
bool finish(const std::ostringstream& text, std::string& message) {
    message = text.str();
    if (!message.empty())
        message.insert(0, PREFIX);
    return message.empty();
}

} // namespace

GlobalDebug::GlobalDebug() = default;
GlobalDebug::GlobalDebug(const GlobalDebug&) = default;
GlobalDebug& GlobalDebug::operator=(const GlobalDebug&) = default;
GlobalDebug::~GlobalDebug() = default;

void GlobalDebug::assertClientServerObjectsSynchronized() const {
    if (MachineGround::isSerial())
        return;
    std::vector<std::string> keys;
    fillRegistryKeys(keys);
    MachineGround::globalCommunicator().broadcast(keys, Communicator::masterRank());
    std::string message;
    ORVEX_GLOBAL_CHECK(compareKeysToRegistry(keys, message), GlobalCondition::ON_ALL, makeError(message));
}

void GlobalDebug::assertClientServerObjectParentsSynchronized() const {
    if (MachineGround::isSerial())
        return;
    std::vector<std::string> parentKeys;
    fillRegistryParentKeys(parentKeys);
    MachineGround::globalCommunicator().broadcast(parentKeys, Communicator::masterRank());
    std::string message;
    ORVEX_GLOBAL_CHECK(compareParentKeysToRegistry(parentKeys, message), GlobalCondition::ON_ALL,
                       makeError(message));
}

void GlobalDebug::checkCsoIdConsistency(ClientServerObject* object) const {
    if (MachineGround::isSerial())
        return;
    // Without an object the key is empty. No object has that, so the check fails on all ranks.
    const bool isMine = MachineGround::isMaster() && object != nullptr;
    std::string key = isMine ? object->getKey() : std::string();
    long long id = isMine ? object->getId() : 0;
    Communicator& communicator = MachineGround::globalCommunicator();
    communicator.broadcast(key, Communicator::masterRank());
    communicator.broadcast(id, Communicator::masterRank());
    std::stringstream text;
    ORVEX_GLOBAL_CHECK(verifyIdConsistency(key, id, text), GlobalCondition::ON_ALL, makeError(text.str()));
}

void GlobalDebug::checkCsoIdConsistency(Properties* command) const {
    if (MachineGround::isSerial())
        return;
    // The master decides for all: a rank with other properties than the rest must not stay away.
    const bool isUnnamed = command != nullptr && !command->hasName(TransactionObservable::_cmdNameTag);
    if (GlobalCondition(isUnnamed, GlobalCondition::ON_MASTER))
        return;
    std::vector<std::string> keys;
    std::vector<long long> ids;
    fillRegistryKeysWithIds(keys, ids);
    Communicator& communicator = MachineGround::globalCommunicator();
    communicator.broadcast(keys, Communicator::masterRank());
    communicator.broadcast(ids, Communicator::masterRank());
    std::string message;
    const bool isConsistent = verifyIdConsistency(keys, ids, message);
    if (!isConsistent && command != nullptr)
        message = std::string(PREFIX) + "Inconsistent object IDs in command " +
                  Command::getCommandName(*command) + ":\r" + message;
    ORVEX_GLOBAL_CHECK(isConsistent, GlobalCondition::ON_ALL, makeError(message));
}

void GlobalDebug::fillRegistryKeys(std::vector<std::string>& keys) const {
    keys.clear();
    for (const auto& [key, object] : registry())
        keys.push_back(key);
}

void GlobalDebug::fillRegistryParentKeys(std::vector<std::string>& keys) const {
    keys.clear();
    for (const auto& [key, object] : registry())
        keys.push_back(parentKeyOf(*object));
}

void GlobalDebug::fillRegistryKeysWithIds(std::vector<std::string>& keys, std::vector<long long>& ids) const {
    fillRegistryKeys(keys);
    ids.clear();
    for (const auto& [key, object] : registry())
        ids.push_back(object->getId());
}

bool GlobalDebug::compareSize(std::size_t masterCount, std::size_t localCount, std::ostream& stream) const {
    if (masterCount == localCount)
        return true;
    stream << "Process synchronization error: CSO Count Error (Master CSO count = " << masterCount
           << ", Slave CSO count = " << localCount << ")\n";
    return false;
}

bool GlobalDebug::missingFromSlave(const std::vector<std::string>& keys, std::ostream& stream) const {
    std::vector<std::string> missing;
    for (const std::string& key : keys)
        if (!registry().hasObject(key))
            missing.push_back(key);
    return writeMissing("Master CSOs missing from slave: ", missing, stream);
}

bool GlobalDebug::missingFromMaster(const std::vector<std::string>& keys, std::ostream& stream) const {
    const std::set<std::string_view> masters(keys.begin(), keys.end());
    std::vector<std::string> missing;
    for (const auto& [key, object] : registry())
        if (!masters.contains(key))
            missing.push_back(key);
    return writeMissing("Slave CSOs missing from master: ", missing, stream);
}

bool GlobalDebug::compareKeysToRegistry(const std::vector<std::string>& keys, std::string& message) const {
    std::ostringstream text;
    compareSize(keys.size(), registry().size(), text);
    missingFromSlave(keys, text);
    missingFromMaster(keys, text);
    return finish(text, message);
}

bool GlobalDebug::compareParentKeysToRegistry(const std::vector<std::string>& parentKeys,
                                              std::string& message) const {
    std::ostringstream text;
    compareSize(parentKeys.size(), registry().size(), text);
    auto local = registry().begin();
    for (const std::string& masters : parentKeys) {
        if (local == registry().end())
            break;
        const ClientServerObject& object = *local->second;
        if (parentKeyOf(object) != masters) {
            text << "Process parent synchronization error (Master parent key: " << masters
                 << ", Slave parent key: " << object.getKey() << " [" << object.getDescription() << "])\n";
            break;
        }
        ++local;
    }
    return finish(text, message);
}

bool GlobalDebug::verifyIdConsistency(const std::string& key, long long id, std::stringstream& out) const {
    const ClientServerObject* const withKey = registry().hasObject(key);
    const ClientServerObject* const withId = registry().hasObject(id);
    if (withKey == nullptr)
        out << "GlobalDebug: Missing object for key: " << key << '\r' << std::flush;
    else if (withId == nullptr)
        out << "GlobalDebug: Missing object for id: " << id << "(key: " << key << ")\r" << std::flush;
    else if (withKey != withId)
        out << "GlobalDebug: Master key: " << key << " id: " << id
            << ", key for the same id on this node: " << withId->getKey() << '\r' << std::flush;
    return withKey != nullptr && withKey == withId;
}

bool GlobalDebug::verifyIdConsistency(const std::vector<std::string>& keys, const std::vector<long long>& ids,
                                      std::string& message) const {
    std::stringstream text;
    bool isConsistent = true;
    for (std::size_t i = 0; i < keys.size(); ++i)
        isConsistent = verifyIdConsistency(keys[i], ids[i], text) && isConsistent;
    message = text.str();
    return isConsistent;
}
