#include "machine/reports/CommandMeter.h"

#include "machine/MachineGround.h"
#include "machine/messages/OperationRecord.h"
#include "machine/reports/ProfileWriting.h"

#include "platform/Memory.h"
#include "platform/Process.h"
#include "platform/TickClock.h"
#include "platform/Time.h"

#include <algorithm>

namespace {

using Platform::TickClock;

std::int64_t toNanoseconds(double seconds) {
    return static_cast<std::int64_t>(seconds * 1e9);
}

std::uint64_t toCount(double value) {
    return static_cast<std::uint64_t>(std::max(value, 0.0));
}

} // namespace

CommandMeter& CommandMeter::getSingleton() {
    static auto* const meter = new CommandMeter; // clients may ask to the very end of the process
    return *meter;
}

CommandMeter::CommandMeter() : _query(Platform::memory().createQuery(Platform::process().getPid())) {}

CommandMeter::~CommandMeter() = default;

CommandMeter::Start CommandMeter::measure(Platform::MemoryQuery& query) {
    const ProfileLayout::Board& board = OperationRecord::getPage().board;
    Platform::MemoryUse memory;
    query.query(memory); // all zero when the system doesn't tell
    Start now;
    now.at = Platform::time().getSecondsSinceEpoch();
    now.tick = TickClock::read();
    now.processor = Platform::time().getProcessorTime();
    now.waitTicks = board.waitTicks.load(std::memory_order_relaxed);
    now.lentTicks = board.lentTicks.load(std::memory_order_relaxed);
    now.generation = board.generation.load(std::memory_order_relaxed);
    now.bytes = board.bytes.load(std::memory_order_relaxed);
    now.memory = memory.residentSize;
    now.highWater = memory.residentHighWater;
    return now;
}

CommandMeter::Cost CommandMeter::subtract(const Start& end, const Start& begin) {
    Cost cost;
    cost.wall = TickClock::toSeconds(end.tick - begin.tick);
    cost.processor = end.processor - begin.processor;
    cost.lent = TickClock::toSeconds(end.lentTicks - begin.lentTicks);
    cost.waiting = std::max(TickClock::toSeconds(end.waitTicks - begin.waitTicks) - cost.lent, 0.0);
    // The system keeps one highest value for the life of the process. Of a command that stayed below it only
    // the two ends are known.
    cost.peakMemory = static_cast<double>(
        end.highWater > begin.highWater ? end.highWater : std::max(begin.memory, end.memory));
    cost.addedMemory = static_cast<double>(end.memory - begin.memory);
    const std::uint64_t begun = (end.generation + 1) / 2 - (begin.generation + 1) / 2;
    cost.messages = static_cast<double>(begun);
    cost.bytes = static_cast<double>(end.bytes - begin.bytes);
    return cost;
}

void CommandMeter::begin(const std::string& command) {
    Start start = measure(*_query);
    start.command = command;
    ProfileLayout::Page& page = OperationRecord::getPage();
    if (_open.size() < ProfileLayout::MAX_DEPTH) {
        ProfileLayout::Command& shown = page.commands[_open.size()];
        const ProfileWriting writing(shown.sequence);
        ProfileWriting::copyText(shown.name, command);
        shown.beganAt = toNanoseconds(start.at);
        shown.beginTick = start.tick;
        shown.operations = start.generation / 2;
        shown.bytes = start.bytes;
        shown.waitTicks = start.waitTicks - start.lentTicks;
        shown.processorTime = toCount(start.processor * 1e9);
        shown.memory = toCount(static_cast<double>(start.memory));
    }
    const std::lock_guard lock(_mutex);
    _open.push_back(std::move(start));
    page.depth.store(_open.size(), std::memory_order_release);
}

CommandMeter::Cost CommandMeter::end(bool hasFailed) {
    if (_open.empty())
        return {};
    const Start start = _open.back();
    {
        const std::lock_guard lock(_mutex);
        _open.pop_back();
    }
    const Cost cost = subtract(measure(*_query), start);
    ProfileLayout::Page& page = OperationRecord::getPage();
    const std::uint64_t number = page.bills.load(std::memory_order_relaxed);
    {
        ProfileLayout::Bill& bill = page.bill[number % ProfileLayout::NUMBER_BILLS];
        const ProfileWriting writing(bill.sequence);
        ProfileWriting::copyText(bill.command, start.command);
        bill.beganAt = toNanoseconds(start.at);
        bill.wallTime = toCount(cost.wall * 1e9);
        bill.processorTime = toCount(cost.processor * 1e9);
        bill.waitTime = toCount(cost.waiting * 1e9);
        bill.operations = toCount(cost.messages);
        bill.bytes = toCount(cost.bytes);
        bill.peakMemory = toCount(cost.peakMemory);
        bill.addedMemory = static_cast<std::int64_t>(cost.addedMemory);
        bill.hasFailed = hasFailed ? 1 : 0;
    }
    page.bills.store(number + 1, std::memory_order_release);
    page.depth.store(_open.size(), std::memory_order_release);
    if (!_open.empty())
        return cost;
    _total.wall += cost.wall;
    _total.processor += cost.processor;
    _total.waiting += cost.waiting;
    _total.lent += cost.lent;
    _total.peakMemory = std::max(_total.peakMemory, cost.peakMemory);
    _total.addedMemory += cost.addedMemory;
    _total.messages += cost.messages;
    _total.bytes += cost.bytes;
    return cost;
}

Properties CommandMeter::describeSoFar() {
    Start begin;
    {
        const std::lock_guard lock(_mutex);
        if (_open.empty())
            return {};
        begin = _open.front();
    }
    const Cost cost = subtract(measure(*Platform::memory().createQuery(Platform::process().getPid())), begin);
    Properties bill;
    bill.set("rank", MachineGround::getPartitionId());
    bill.set("processor", cost.processor);
    bill.set("waiting", cost.waiting);
    bill.set("waitingShare", cost.wall > 0.0 ? std::min(cost.waiting / cost.wall, 1.0) : 0.0);
    bill.set("peakMemory", cost.peakMemory);
    bill.set("addedMemory", cost.addedMemory);
    bill.set("messages", cost.messages);
    bill.set("bytes", cost.bytes);
    return bill;
}

std::string CommandMeter::getCommand() const {
    return _open.empty() ? std::string() : _open.back().command;
}

double CommandMeter::getBeginning() const {
    return _open.empty() ? Platform::time().getSecondsSinceEpoch() : _open.back().at;
}
