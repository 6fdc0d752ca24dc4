#pragma once

#include "machine/MachineExport.h"
#include "machine/Timer.h"

#include <cstddef>
#include <cstdint>
#include <map>
#include <string>
#include <unordered_map>
#include <vector>

/// The events of this rank as a tree of calls: which event began inside which, how often, and for how long.
///
/// A path is an event together with the open events around it. An event that begins inside itself counts at
/// its open path and makes no new one. So the times of all paths of an event add up to the time of the event,
/// and a tree is no deeper than there are events. Main thread.
class ORVEX_MACHINE_EXPORT CallPaths {
public:
    using Event = unsigned;
    /// Further paths are kept by their event alone, without the events around them.
    static constexpr std::size_t MAX_PATHS = 2000;
    static constexpr unsigned NONE = ~0u;

    /// The text between the names in a key. Names hold no control characters.
    static constexpr char SEPARATOR = '\n';

    struct Path {
        Event event = 0;
        unsigned parent = NONE; ///< a path with a smaller index
        bool isPlaced = true;   ///< false: the events around it are unknown
        bool isOpen = false;
        std::uint64_t count = 0;
        double seconds = 0.0; ///< of the intervals that are over
        double begin = 0.0;   ///< of the open interval [s]
        unsigned recentChild = NONE;
    };

    /// @param clock  a stopped timer, whose wall clock is used
    explicit CallPaths(const Timer& clock, std::size_t maxPaths = MAX_PATHS);

    /// The event of this name.
    Event addEvent(const std::string& name);
    /// The event begins, and isn't open yet.
    void start(Event event);
    /// The event begins once more inside itself.
    void startAgain(Event event);
    /// The event ends, the outermost one of its beginnings. Events needn't end in reverse order.
    void stop(Event event);

    const std::vector<Path>& getPaths() const { return _paths; }
    /// With the open interval up to now. [s]
    double getSeconds(const Path& path) const;
    /// The names from the outermost event to the path's own, with SEPARATOR between two; an unplaced path's
    /// key begins with SEPARATOR. In sorted keys a parent stands before its children.
    std::string getKey(unsigned path) const;

private:
    struct State {
        std::string name;
        unsigned openPath = NONE;
        unsigned unplacedPath = NONE;
    };

    unsigned findPath(unsigned parent, Event event);
    unsigned addPath(unsigned parent, Event event, bool isPlaced);

    Timer _clock;
    std::size_t _maxPaths;
    std::map<std::string, Event> _eventsByName;
    std::vector<State> _events;
    std::vector<Path> _paths;
    std::vector<unsigned> _open; ///< paths, the innermost last
    /// Parent and event to the path.
    std::unordered_map<std::uint64_t, unsigned> _children;
    unsigned _recentRoot = NONE;
};
