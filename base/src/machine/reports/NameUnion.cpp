#include "machine/reports/NameUnion.h"

#include "machine/Communicator.h"
#include "machine/messages/MessageTags.h"

#include <sstream>

namespace {

/// Behind each name.
constexpr char END = '\0';

std::string join(const std::set<std::string>& names) {
    std::string text;
    for (const std::string& name : names)
        (text += name) += END;
    return text;
}

void insert(const std::string& text, std::set<std::string>& names) {
    std::istringstream stream(text);
    for (std::string name; std::getline(stream, name, END);)
        names.insert(name);
}

} // namespace

std::set<std::string> NameUnion::unite(Communicator& communicator, std::set<std::string> names) {
    const unsigned me = communicator.myRank();
    std::string text;
    for (unsigned distance = 1; distance < communicator.size(); distance *= 2) {
        if (me & distance) {
            communicator.send(join(names), me - distance, MessageTags::REPORTS);
            break;
        }
        if (me + distance < communicator.size()) {
            communicator.recv(text, me + distance, MessageTags::REPORTS);
            insert(text, names);
        }
    }
    text = join(names);
    communicator.broadcast(text, Communicator::_master);
    insert(text, names);
    return names;
}
