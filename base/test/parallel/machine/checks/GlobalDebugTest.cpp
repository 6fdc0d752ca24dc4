// Registries of the ranks that are alike, and that differ on the last rank.

#include "machine/GlobalDebug.h"
#include "machine/CommandController.h"
#include "machine/Machine.h"

#include "kernel/ClientServerObject.h"
#include "kernel/Properties.h"

#include "parallel/machine/commands/ParallelCommands.h"
#include "unit/machine/Failures.h"

#include <gtest/gtest.h>

#include <functional>
#include <map>
#include <string>
#include <vector>

namespace {

struct Object {
    const char* key;
    long long id;
    const char* parent = nullptr;
};

/// The objects of this rank while it lives.
class Objects {
public:
    explicit Objects(const std::vector<Object>& objects) {
        for (const Object& row : objects)
            _all[row.key] = new ClientServerObject(row.key, row.id, std::string("object ") + row.key,
                                                   row.parent ? _all.at(row.parent) : nullptr);
    }
    ~Objects() {
        for (const auto& [key, object] : _all)
            CoreObject::destroy(object);
    }
    ClientServerObject* find(const std::string& key) const {
        const auto found = _all.find(key);
        return found != _all.end() ? found->second : nullptr;
    }

private:
    std::map<std::string, ClientServerObject*> _all;
};

class ParallelGlobalDebug : public ParallelCommands {
protected:
    bool isJob = Machine::nProcesses() > 1;
    std::string last = std::to_string(Machine::nProcesses() - 1);
    bool isOdd = isJob && std::to_string(Machine::getPartitionId()) == last;

    /// All ranks raise where the last one finds a difference, the others without a message.
    void expect(const std::string& message, const std::function<void()>& check) {
        bool hasRaised = false;
        try {
            check();
        } catch (const SystemError& error) {
            hasRaised = true;
            EXPECT_EQ(error.what(), isOdd ? message : "");
        }
        EXPECT_EQ(hasRaised, isJob && !message.empty());
    }
};

TEST_F(ParallelGlobalDebug, ADifferenceOfOneRankIsAnErrorOfAll) {
    const auto count = [](int master, int slave) {
        return "GlobalDebug: Process synchronization error: CSO Count Error (Master CSO count = " +
               std::to_string(master) + ", Slave CSO count = " + std::to_string(slave) + ")\n";
    };
    const std::vector<Object> two = {{"a", 1}, {"b", 2, "a"}};
    const std::string other = ", key for the same id on this node: ";
    const struct {
        const char* name;
        std::vector<Object> objects, odd;
        std::string keys, parents, ids;
    } rows[] = {
        {"none", {}, {}, "", "", ""},
        {"alike", two, two, "", "", ""},
        {"one more",
         two,
         {{"a", 1}, {"b", 2, "a"}, {"c", -3}, {"d", 4}},
         count(2, 4) + "Slave CSOs missing from master: c, d\n",
         count(2, 4),
         ""},
        {"none there",
         two,
         {},
         count(2, 0) + "Master CSOs missing from slave: a, b\n",
         count(2, 0),
         "GlobalDebug: Missing object for key: a\rGlobalDebug: Missing object for key: b\r"},
        {"another key",
         two,
         {{"a", 1}, {"x", 2, "a"}},
         "GlobalDebug: Master CSOs missing from slave: b\nSlave CSOs missing from master: x\n",
         "",
         "GlobalDebug: Missing object for key: b\r"},
        {"no parent",
         two,
         {{"a", 1}, {"b", 2}},
         "",
         "GlobalDebug: Process parent synchronization error (Master parent key: a, Slave parent key: b "
         "[object b])\n",
         ""},
        {"another id",
         two,
         {{"a", 1}, {"b", 9, "a"}},
         "",
         "",
         "GlobalDebug: Missing object for id: 2(key: b)\r"},
        {"ids exchanged",
         two,
         {{"a", 2}, {"b", 1, "a"}},
         "",
         "",
         "GlobalDebug: Master key: a id: 1" + other + "b\rGlobalDebug: Master key: b id: 2" + other + "a\r"},
    };
    const GlobalDebug debug;
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        const Objects objects(isOdd ? row.odd : row.objects);
        expect(row.keys, [&] { debug.assertClientServerObjectsSynchronized(); });
        expect(row.parents, [&] { debug.assertClientServerObjectParentsSynchronized(); });
        Properties command(R"({"command":"Remesh"})");
        expect(row.ids.empty() ? "" : "GlobalDebug: Inconsistent object IDs in command Remesh:\r" + row.ids,
               [&] { debug.checkCsoIdConsistency(&command); });
        Properties none; // of the master counts, whatever the others have
        expect("", [&] { debug.checkCsoIdConsistency(isOdd ? &command : &none); });
        if (!isSmallJob())
            continue;
        inCommandLoop([&] { // a client gets the message of the last rank
            const Properties response = run("GlobalDebug.VerifyIdConsistency");
            const bool fails = isJob && !row.ids.empty();
            EXPECT_EQ(Error::getMessage(response), fails ? row.ids : "");
            EXPECT_EQ(response.getOr(CommandController::RANKS_KEY, ""), fails ? last : "");
            EXPECT_EQ(response.getOr("result", false), !fails);
        });
    }
}

TEST_F(ParallelGlobalDebug, TheObjectOfTheMasterCounts) {
    const Objects objects({{"a", 1}, {"b", isOdd ? 3 : 2}});
    for (const char* key : {"a", "b"})
        expect(*key == 'a' ? "" : "GlobalDebug: Missing object for id: 2(key: b)\r", [&] {
            GlobalDebug().checkCsoIdConsistency(Machine::isMaster() ? objects.find(key) : nullptr);
        });
    EXPECT_EQ(messageOf<SystemError>([&] { GlobalDebug().checkCsoIdConsistency(objects.find("none")); }),
              "GlobalDebug: Missing object for key: \r");
}

} // namespace
