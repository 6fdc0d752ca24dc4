#include "machine/reports/CallPaths.h"

#include <algorithm>

CallPaths::CallPaths(const Timer& clock, std::size_t maxPaths) : _clock(clock), _maxPaths(maxPaths) {
    _clock.startWallTimer();
}

CallPaths::Event CallPaths::addEvent(const std::string& name) {
    std::string clean = name;
    std::ranges::replace_if(
        clean, [](unsigned char c) { return c < ' '; }, ' ');
    const auto [entry, isNew] = _eventsByName.try_emplace(clean, static_cast<Event>(_events.size()));
    if (isNew)
        _events.push_back({clean});
    return entry->second;
}

void CallPaths::start(Event event) {
    const unsigned path = findPath(_open.empty() ? NONE : _open.back(), event);
    ++_paths[path].count;
    _paths[path].isOpen = true;
    _open.push_back(path);
    _events[event].openPath = path;
    _paths[path].begin = _clock.getWallTime();
}

void CallPaths::startAgain(Event event) {
    if (_events[event].openPath != NONE)
        ++_paths[_events[event].openPath].count;
}

void CallPaths::stop(Event event) {
    const unsigned path = _events[event].openPath;
    if (path == NONE)
        return;
    _paths[path].seconds += _clock.getWallTime() - _paths[path].begin;
    _paths[path].isOpen = false;
    _events[event].openPath = NONE;
    if (_open.back() == path)
        _open.pop_back();
    else
        std::erase(_open, path);
}

double CallPaths::getSeconds(const Path& path) const {
    return path.seconds + (path.isOpen ? _clock.getWallTime() - path.begin : 0.0);
}

std::string CallPaths::getKey(unsigned path) const {
    if (!_paths[path].isPlaced)
        return SEPARATOR + _events[_paths[path].event].name;
    std::vector<unsigned> line;
    for (unsigned at = path; at != NONE; at = _paths[at].parent)
        line.push_back(at);
    std::string key;
    for (auto at = line.rbegin(); at != line.rend(); ++at) {
        if (at != line.rbegin())
            key += SEPARATOR;
        key += _events[_paths[*at].event].name;
    }
    return key;
}

unsigned CallPaths::findPath(unsigned parent, Event event) {
    const unsigned recent = parent == NONE ? _recentRoot : _paths[parent].recentChild;
    if (recent != NONE && _paths[recent].event == event)
        return recent;
    const std::uint64_t key = std::uint64_t{parent} << 32 | event;
    const auto known = _children.find(key);
    unsigned path = NONE;
    if (known != _children.end()) {
        path = known->second;
    } else if (_paths.size() < _maxPaths) {
        path = addPath(parent, event, true);
        _children.emplace(key, path);
    } else {
        unsigned& unplaced = _events[event].unplacedPath;
        if (unplaced == NONE)
            unplaced = addPath(NONE, event, false);
        return unplaced;
    }
    (parent == NONE ? _recentRoot : _paths[parent].recentChild) = path;
    return path;
}

unsigned CallPaths::addPath(unsigned parent, Event event, bool isPlaced) {
    Path path;
    path.event = event;
    path.parent = parent;
    path.isPlaced = isPlaced;
    _paths.push_back(path);
    return static_cast<unsigned>(_paths.size() - 1);
}
