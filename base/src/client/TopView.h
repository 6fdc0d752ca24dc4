#pragma once

#include <cstddef>
#include <string>

/// The wishes of a user of the live view: which lines, in which order, from where.
struct TopView {
    enum Sort : char { PROCESSOR = 'P', MEMORY = 'M', WAITING = 'W', NAME = 'N' };

    bool showsRanks = false;
    std::string host; ///< whose ranks are shown; empty: those of all hosts
    Sort sort = WAITING;
    bool isReversed = false;
    bool showsAll = false; ///< also hosts that are like the others
    bool isPaused = false;
    bool showsHelp = false;
    std::string prompt;   ///< a question in the last line, with what was typed
    std::string selected; ///< the name or rank of the chosen line; empty: none
    std::size_t top = 0;  ///< the first line that is shown
    double seconds = 1.0; ///< between two looks
    bool isUtf8 = true;

    /// Whether `letter` is an order of lines; then it becomes that.
    bool setSort(int letter);
    /// Hosts in place of ranks, and the other way.
    void switchLines();
    /// From a host to its ranks, and back.
    void enter();
    /// The request to `server.live`, JSON text.
    std::string getRequest() const;
};
