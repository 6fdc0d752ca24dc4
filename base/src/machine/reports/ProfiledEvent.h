#pragma once

#include "kernel/profile/ProfileLayout.h"

#include <string>

/// An event in this rank's profile, where others read its time, also when the rank has died. Main thread.
class ProfiledEvent {
public:
    /// Takes the place of the event of this name, or a free one, and sets it to zero. Without a free place
    /// the event isn't told to others.
    explicit ProfiledEvent(const std::string& name);

    void start(bool isOutermost) const;
    /// The end of the outermost span.
    void stop() const;

private:
    ProfileLayout::Event* find() const;

    int _index = -1; ///< of its place, -1: it has none
};
