#include "machine/reports/ProfiledEvent.h"

#include "machine/messages/OperationRecord.h"
#include "machine/reports/ProfileWriting.h"

#include "platform/TickClock.h"

#include <cstring>

using Platform::TickClock;

ProfiledEvent::ProfiledEvent(const std::string& name) {
    ProfileLayout::Event cut{};
    ProfileWriting::copyText(cut.name, name);
    ProfileLayout::Page& page = OperationRecord::getPage();
    for (std::size_t i = 0; i < ProfileLayout::NUMBER_EVENTS; ++i) {
        ProfileLayout::Event& event = page.events[i];
        if (event.name[0] != '\0' && std::strcmp(event.name, cut.name) != 0)
            continue;
        const ProfileWriting writing(event.sequence);
        ProfileWriting::copyText(event.name, name);
        event.count = event.nanoseconds = event.openedAt = 0;
        _index = static_cast<int>(i);
        return;
    }
}

/// The page may have moved.
ProfileLayout::Event* ProfiledEvent::find() const {
    return _index < 0 ? nullptr : &OperationRecord::getPage().events[_index];
}

void ProfiledEvent::start(bool isOutermost) const {
    ProfileLayout::Event* const event = find();
    if (!event)
        return;
    const ProfileWriting writing(event->sequence);
    ++event->count;
    if (isOutermost)
        event->openedAt = TickClock::read();
}

void ProfiledEvent::stop() const {
    ProfileLayout::Event* const event = find();
    if (!event || event->openedAt == 0)
        return;
    const double seconds = TickClock::toSeconds(TickClock::read() - event->openedAt);
    const ProfileWriting writing(event->sequence);
    event->nanoseconds += static_cast<std::uint64_t>(seconds * 1e9);
    event->openedAt = 0;
}
