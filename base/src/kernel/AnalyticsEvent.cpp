#include "kernel/AnalyticsEvent.h"

#include <utility>

namespace Analytics {

Event::Event(std::string name) : _name(std::move(name)) {}

Event::~Event() = default;

} // namespace Analytics
