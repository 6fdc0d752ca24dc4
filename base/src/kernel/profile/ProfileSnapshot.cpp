#include "kernel/profile/ProfileSnapshot.h"

#include "kernel/Properties.h"

namespace {

Properties toTree(const ProfileSnapshot::Operation& operation) {
    Properties tree;
    tree.set("number", operation.number);
    tree.set("name", operation.name);
    tree.set("communicator", operation.communicator);
    tree.set("bytes", operation.bytes);
    if (operation.partner >= 0)
        tree.set("partner", operation.partner);
    tree.set("open", operation.isOpen);
    if (operation.isTimed) {
        tree.set("began", operation.began);
        tree.set("seconds", operation.seconds);
    }
    return tree;
}

Properties toTree(const ProfileSnapshot::Command& command) {
    Properties tree;
    tree.set("name", command.name);
    tree.set("began", command.began);
    tree.set("seconds", command.seconds);
    tree.set("operations", command.operations);
    tree.set("bytes", command.bytes);
    tree.set("waiting", command.waitSeconds);
    return tree;
}

Properties toTree(const ProfileSnapshot::Event& event) {
    Properties tree;
    tree.set("name", event.name);
    tree.set("count", event.count);
    tree.set("seconds", event.seconds);
    tree.set("open", event.isOpen);
    if (event.isOpen)
        tree.set("openSeconds", event.openSeconds);
    return tree;
}

Properties toTree(const ProfileSnapshot::Bill& bill) {
    Properties tree;
    tree.set("number", bill.number);
    tree.set("command", bill.command);
    tree.set("began", bill.began);
    tree.set("wall", bill.wallSeconds);
    tree.set("processor", bill.processorSeconds);
    tree.set("waiting", bill.waitSeconds);
    tree.set("messages", bill.operations);
    tree.set("bytes", bill.bytes);
    tree.set("peakMemory", bill.peakMemory);
    tree.set("addedMemory", static_cast<long long>(bill.addedMemory));
    tree.set("failed", bill.hasFailed);
    return tree;
}

template <class Record>
std::vector<Properties> toTrees(const std::vector<Record>& records) {
    std::vector<Properties> trees;
    trees.reserve(records.size());
    for (const Record& record : records)
        trees.push_back(toTree(record));
    return trees;
}

} // namespace

const char* ProfileSnapshot::nameOf(Life life) {
    switch (life) {
    case Life::LIVES:
        return "lives";
    case Life::DIED:
        return "died";
    case Life::UNSEEN:
        break;
    }
    return "unseen";
}

Properties ProfileSnapshot::toProperties() const {
    Properties tree;
    tree.set("rank", rank);
    tree.set("ranks", ranks);
    tree.set("state", nameOf(life));
    tree.set("process", pid);
    tree.set("masterProcess", masterPid);
    tree.set("host", host);
    tree.set("masterHost", masterHost);
    tree.set("job", job);
    tree.set("product", product);
    tree.set("began", began);
    tree.set("lastActivity", lastActivity);
    tree.set("messages", begunOperations);
    tree.set("inside", isInside);
    tree.set("bytes", bytes);
    tree.set("waiting", waitSeconds);
    tree.set("depth", depth);
    tree.set("commands", toTrees(commands));
    tree.set("operations", toTrees(operations));
    tree.set("bills", toTrees(bills));
    tree.set("events", toTrees(events));
    tree.set("halfWritten", halfWritten);
    tree.set("file", path);
    return tree;
}
