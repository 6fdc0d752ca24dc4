#include "machine/reports/TraceRecorder.h"

#include "machine/messages/CollectiveHistory.h"
#include "machine/messages/OperationRecord.h"

#include "kernel/Error.h"
#include "kernel/Raise.h"
#include "kernel/profile/CommunicatorLabel.h"
#include "platform/TickClock.h"

#include <algorithm>
#include <cstring>
#include <new>
#include <string_view>
#include <utility>

using Platform::TickClock;

namespace {

constexpr double PATIENCE = 120.0; ///< [s] for which nobody has to ask for what was taken down
constexpr unsigned DEPTH_BITS = 16;
constexpr const char* OTHERS = "(others)"; ///< the first name, for those beyond the limit

/// Tells what can be said of the moments at which ranks leave a collective that has data. One whose data may
/// be empty on some ranks, or which waits beside the messages, tells nothing.
TraceLayout::Kind kindOf(Collective collective) {
    switch (collective) {
    case Collective::SYNCHRONISE:
    case Collective::ALL_GATHER:
    case Collective::ALL_TO_ALL:
    case Collective::ALL_REDUCE:
        return TraceLayout::COLLECTIVE_MEETING;
    case Collective::BROADCAST:
    case Collective::SCATTER:
        return TraceLayout::COLLECTIVE_FROM_ROOT;
    case Collective::GATHER:
    case Collective::REDUCE:
        return TraceLayout::COLLECTIVE_TO_ROOT;
    default:
        return TraceLayout::COLLECTIVE;
    }
}

TraceLayout::Kind kindOf(const MessageOperation& operation) {
    if (operation.collective != Collective::NONE)
        return kindOf(operation.collective);
    constexpr std::pair<std::string_view, TraceLayout::Kind> KINDS[] = {
        {"Communicator::Send", TraceLayout::SEND},
        {"Communicator::Recv", TraceLayout::RECEIVE},
        {"Communicator::iSend", TraceLayout::BEGIN_SEND},
        {"Communicator::iRecv", TraceLayout::BEGIN_RECEIVE},
        {"Communicator::Wait", TraceLayout::COMPLETE},
        {"Communicator::Test", TraceLayout::COMPLETE},
        {"Communicator::FreeRequest", TraceLayout::COMPLETE},
        {"RequestStack::wait", TraceLayout::COMPLETE},
    };
    for (const auto& [name, kind] : KINDS)
        if (name == operation.name)
            return kind;
    return TraceLayout::OPERATION;
}

std::uint64_t toTicks(double seconds) {
    return static_cast<std::uint64_t>(seconds * TickClock::getTicksPerSecond());
}

/// As in "AllReduce", for "Communicator::AllReduce".
std::string_view withoutClass(std::string_view name) {
    const std::size_t colons = name.rfind(':');
    return colons == std::string_view::npos ? name : name.substr(colons + 1);
}

bool isName(std::string_view text, const char* className, const char* method) {
    const std::size_t size = std::strlen(className);
    return text.size() >= size + 2 && text.starts_with(className) && text.substr(size, 2) == "::" &&
           text.substr(size + 2) == method;
}

} // namespace

TraceRecorder& TraceRecorder::getSingleton() {
    static auto* const recorder = new TraceRecorder; // the main thread may use it to the end of the process
    return *recorder;
}

TraceRecorder::TraceRecorder() {
    OperationTrace::install(*this);
}

// ---- Any thread.

void TraceRecorder::begin(std::uint64_t trace, double seconds, std::size_t records) {
    const std::uint64_t time = toTicks(seconds); // may sleep for a moment
    const std::lock_guard lock(_mutex);
    clear();
    reserve(std::min<std::size_t>(records, TraceLayout::MAX_RECORDS));
    _summary.trace = trace;
    _summary.begin = _asked = TickClock::read();
    _summary.epoch = static_cast<std::uint32_t>(OperationRecord::getCommandChanges());
    _lastTick = _summary.begin + time;
    _isOn = true;
    MessagingGate::setTrace(true);
    EventTracker::setWatcher(this);
    takeOpen();
}

TraceRecorder::Summary TraceRecorder::end(std::uint64_t trace) {
    const std::lock_guard lock(_mutex);
    expect(trace);
    _asked = TickClock::read();
    if (_isOn)
        finish(std::min(_asked, _lastTick));
    _summary.records = _records.size();
    _summary.names = _names.size();
    return _summary;
}

std::string TraceRecorder::fetchRecords(std::uint64_t trace, std::size_t from, std::size_t count) {
    const std::lock_guard lock(_mutex);
    expect(trace);
    _asked = TickClock::read();
    const std::size_t first = std::min(from, _isOn ? 0 : _records.size());
    const std::size_t number = std::min(count, (_isOn ? 0 : _records.size()) - first);
    std::string bytes(number * sizeof(Record), '\0');
    std::memcpy(bytes.data(), _records.data() + first, bytes.size());
    return bytes;
}

std::vector<std::string> TraceRecorder::fetchNames(std::uint64_t trace, std::size_t from, std::size_t count) {
    const std::lock_guard lock(_mutex);
    expect(trace);
    const auto first = _names.begin() + static_cast<std::ptrdiff_t>(std::min(from, _names.size()));
    const auto number = std::min<std::size_t>(count, static_cast<std::size_t>(_names.end() - first));
    return {first, first + static_cast<std::ptrdiff_t>(number)};
}

void TraceRecorder::release(std::uint64_t trace) {
    const std::lock_guard lock(_mutex);
    if (trace == _summary.trace)
        clear();
}

void TraceRecorder::tick() {
    const std::lock_guard lock(_mutex);
    if (_summary.trace == 0)
        return;
    const std::uint64_t now = TickClock::read();
    if (_isOn && now > _lastTick) {
        finish(_lastTick);
        _asked = now;
    }
    if (!_isOn && now > _asked + toTicks(PATIENCE))
        clear();
}

void TraceRecorder::expect(std::uint64_t trace) const {
    if (trace != _summary.trace || trace == 0)
        raise(InputError("This trace isn't known any more"));
}

/// For less when memory is short.
void TraceRecorder::reserve(std::size_t records) {
    constexpr std::size_t LEAST = 1000;
    for (_room = records;; _room /= 2)
        try {
            _records.reserve(_room + 2 * MAX_DEPTH); // what is open at the end always has room
            break;
        } catch (const std::bad_alloc&) {
            if (_room < LEAST)
                throw;
        }
    _open.reserve(MAX_DEPTH);
    _commands.reserve(MAX_DEPTH);
    _names.assign(1, OTHERS);
    _nameNumbers.emplace(OTHERS, 0);
}

void TraceRecorder::clear() {
    if (std::exchange(_isOn, false)) {
        EventTracker::setWatcher(nullptr);
        MessagingGate::setTrace(false);
    }
    _summary = {};
    _records = {};
    _open.clear();
    _commands.clear();
    _hasUnseen = false;
    _names = {};
    _nameNumbers.clear();
    _operations.clear();
    _labels.clear();
    _remembered.fill({});
}

/// The command and the operation that were at work before the span.
void TraceRecorder::takeOpen() {
    const OperationRecord::Snapshot now = OperationRecord::read();
    if (!now.command.empty()) {
        _commands.push_back(make(TraceLayout::COMMAND, nameOf(now.command), _summary.begin));
        _commands.back().flags = TraceLayout::CUT_BEGIN;
    }
    _unseen = OperationRecord::getOperationGeneration();
    if (!now.isInside || (_unseen & 1) == 0)
        return;
    Record record = make(TraceLayout::OPERATION, nameOf(now.operation), _summary.begin);
    record.flags = TraceLayout::CUT_BEGIN;
    record.bytes = static_cast<std::uint32_t>(now.bytes);
    record.partner = now.partner;
    record.communicator = now.communicator.empty() ? 0 : nameOf(now.communicator);
    _open.push_back(record);
    _hasUnseen = true;
}

void TraceRecorder::finish(std::uint64_t now) {
    _isOn = false;
    EventTracker::setWatcher(nullptr);
    MessagingGate::setTrace(false);
    _summary.end = now;
    pop(_open, 0, now, TraceLayout::CUT_END);
    pop(_commands, 0, now, TraceLayout::CUT_END);
}

// ---- Main thread.

/// Whether there is a span, and it hasn't lasted its time.
bool TraceRecorder::isRecording(std::uint64_t now) {
    if (_isOn && now > _lastTick)
        finish(_lastTick);
    return _isOn;
}

TraceRecorder::Record TraceRecorder::make(TraceLayout::Kind kind, std::uint32_t name,
                                          std::uint64_t begin) const {
    Record record{};
    record.kind = kind;
    record.name = name;
    record.begin = std::max(begin, _summary.begin);
    record.partner = -1;
    record.epoch = static_cast<std::uint32_t>(OperationRecord::getCommandChanges());
    return record;
}

void TraceRecorder::append(const Record& record) {
    if (_records.size() < (_isOn ? _room : _records.capacity()))
        _records.push_back(record);
    else
        ++_summary.dropped;
}

/// Ends what is open from `depth` on: the innermost first.
void TraceRecorder::pop(std::vector<Record>& stack, std::size_t depth, std::uint64_t now, unsigned flags) {
    while (stack.size() > depth) {
        Record& record = stack.back();
        record.end = std::max(now, record.begin);
        record.flags = static_cast<std::uint8_t>(record.flags | flags);
        append(record);
        stack.pop_back();
    }
    if (&stack == &_open && stack.empty())
        _hasUnseen = false;
}

/// An operation from before the span that ended at the very moment at which the trace began.
void TraceRecorder::dropEndedUnseen(std::uint64_t now) {
    if (_hasUnseen && OperationRecord::getOperationGeneration() != _unseen)
        pop(_open, 0, now, TraceLayout::CUT_END);
}

std::uint64_t TraceRecorder::open(const MessageOperation& operation, const Call& call,
                                  std::uint64_t begin) noexcept {
    const std::lock_guard lock(_mutex);
    const std::uint64_t now = begin != 0 ? begin : TickClock::read();
    if (!isRecording(now))
        return 0;
    dropEndedUnseen(now);
    if (_open.size() == MAX_DEPTH) {
        ++_summary.dropped;
        return 0;
    }
    const Known& known = know(operation);
    const bool isEmpty = call.bytes == 0 && operation.collective != Collective::SYNCHRONISE;
    const bool isCollective = operation.collective != Collective::NONE;
    Record record = make(isCollective && isEmpty ? TraceLayout::COLLECTIVE : known.kind, known.name, now);
    record.communicator = nameOfLabel(call.label);
    record.group = static_cast<std::uint32_t>(call.label >> 32);
    record.number = call.number;
    record.bytes = call.bytes;
    record.partner = call.partner;
    record.tag = call.tag;
    record.requests = call.requests;
    _open.push_back(record);
    return _summary.trace << DEPTH_BITS | _open.size();
}

void TraceRecorder::close(std::uint64_t token, int partner) noexcept {
    const std::lock_guard lock(_mutex);
    const std::uint64_t now = TickClock::read();
    const std::size_t place = token & ((1u << DEPTH_BITS) - 1);
    if (!isRecording(now) || token != (_summary.trace << DEPTH_BITS | place) || place > _open.size())
        return;
    Record& record = _open[place - 1];
    if (record.kind == TraceLayout::RECEIVE && record.partner < 0)
        record.partner = partner;
    pop(_open, place - 1, now);
}

void TraceRecorder::closeUnseen() noexcept {
    const std::lock_guard lock(_mutex);
    const std::uint64_t now = TickClock::read();
    if (_hasUnseen && isRecording(now) && OperationRecord::getOperationGeneration() != _unseen)
        pop(_open, 0, now);
}

void TraceRecorder::beginCommand(const std::string& name) noexcept {
    const std::lock_guard lock(_mutex);
    const std::uint64_t now = TickClock::read();
    if (isRecording(now) && _commands.size() < MAX_DEPTH)
        _commands.push_back(make(TraceLayout::COMMAND, nameOf(name), now));
}

void TraceRecorder::endCommand() noexcept {
    const std::lock_guard lock(_mutex);
    const std::uint64_t now = TickClock::read();
    if (isRecording(now) && !_commands.empty())
        pop(_commands, _commands.size() - 1, now);
}

void TraceRecorder::onStart(const char* className, const char* method) noexcept {
    const std::lock_guard lock(_mutex);
    const std::uint64_t now = TickClock::read();
    if (!isRecording(now))
        return;
    dropEndedUnseen(now);
    if (_open.size() < MAX_DEPTH)
        _open.push_back(make(TraceLayout::EVENT, nameOfEvent(className, method), now));
    else
        ++_summary.dropped;
}

void TraceRecorder::onStop(const char* className, const char* method) noexcept {
    const std::lock_guard lock(_mutex);
    const std::uint64_t now = TickClock::read();
    if (!isRecording(now))
        return;
    const std::uint32_t name = nameOfEvent(className, method);
    const auto found = std::find_if(_open.rbegin(), _open.rend(), [name](const Record& record) {
        return record.kind == TraceLayout::EVENT && record.name == name;
    });
    if (found != _open.rend()) {
        pop(_open, static_cast<std::size_t>(_open.rend() - found) - 1, now);
        return;
    }
    pop(_open, 0, now); // it is around all that began since
    Record record = make(TraceLayout::EVENT, name, _summary.begin);
    record.flags = TraceLayout::CUT_BEGIN;
    record.end = now;
    append(record);
}

// ---- Names.

std::uint32_t TraceRecorder::nameOf(const std::string& text) {
    try {
        const std::string name = text.substr(0, TraceLayout::MAX_NAME_SIZE);
        if (const auto found = _nameNumbers.find(name); found != _nameNumbers.end())
            return found->second;
        if (_names.size() == TraceLayout::MAX_NAMES)
            return 0;
        const auto number = static_cast<std::uint32_t>(_names.size());
        _names.push_back(name);
        _nameNumbers.emplace(name, number);
        return number;
    } catch (const std::bad_alloc&) {
        return 0;
    }
}

std::uint32_t TraceRecorder::nameOfEvent(const char* className, const char* method) {
    const auto spread =
        (reinterpret_cast<std::uintptr_t>(className) * 31 + reinterpret_cast<std::uintptr_t>(method));
    Remembered& place = _remembered[(spread >> 2) % NUMBER_REMEMBERED];
    if (place.className == className && place.method == method &&
        isName(_names[place.name], className, method))
        return place.name;
    const std::uint32_t name = nameOf(std::string(className) + "::" + method);
    place = {className, method, name};
    return name;
}

const TraceRecorder::Known& TraceRecorder::know(const MessageOperation& operation) {
    static const Known UNKNOWN;
    try {
        const auto [entry, isNew] = _operations.try_emplace(&operation);
        if (isNew)
            entry->second = {nameOf(std::string(withoutClass(operation.name))), kindOf(operation)};
        return entry->second;
    } catch (const std::bad_alloc&) {
        return UNKNOWN;
    }
}

std::uint32_t TraceRecorder::nameOfLabel(std::uint64_t label) {
    constexpr std::size_t MAX_LABELS = 1024; // more than this many communicators look alike, by their sizes
    if (label == 0)
        return 0;
    if (const auto found = _labels.find(label); found != _labels.end())
        return found->second;
    const std::uint32_t name = nameOf(CommunicatorLabel::describe(label));
    if (_labels.size() < MAX_LABELS)
        _labels.emplace(label, name);
    return name;
}
