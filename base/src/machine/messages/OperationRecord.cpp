#include "machine/messages/OperationRecord.h"

#include "machine/messages/CollectiveHistory.h"

#include <algorithm>
#include <cctype>
#include <chrono>
#include <mutex>
#include <string_view>
#include <utility>
#include <vector>

constinit OperationRecord::Line OperationRecord::_main;
constinit OperationRecord::Line OperationRecord::_unseen;
constinit OperationRecord::Line* OperationRecord::_line = &OperationRecord::_main;

namespace {

using Clock = std::chrono::steady_clock;

/// A command at work, with the counters as they were at its begin.
struct Command {
    std::string name;
    Clock::time_point begin;
    std::uint64_t operations = 0;
    std::uint64_t collectives = 0;
    std::string failure = {};
};

/// Written on the main thread, read by others.
struct Commands {
    std::mutex mutex;
    std::vector<Command> open; ///< the outermost first
};

Commands& commands() {
    static auto* const commands = new Commands; // threads may read it to the very end of the process
    return *commands;
}

constinit std::atomic<std::uint64_t> commandChanges{0};

/// As in "allReduce", for "Communicator::AllReduce".
std::string shorten(std::string_view name) {
    const std::size_t colons = name.rfind(':');
    std::string text(colons == std::string_view::npos ? name : name.substr(colons + 1));
    if (!text.empty())
        text[0] = static_cast<char>(std::tolower(static_cast<unsigned char>(text[0])));
    return text;
}

} // namespace

bool OperationRecord::readLine(Snapshot& snapshot) {
    const std::uint64_t generation = _main.generation.load(std::memory_order_acquire);
    const MessageOperation* const operation = _main.operation.load(std::memory_order_acquire);
    std::uint64_t communicator = _main.communicator.load(std::memory_order_acquire);
    const std::uint64_t size = _main.size.load(std::memory_order_acquire);
    const CollectiveHistory::Latest latest = CollectiveHistory::getLatest();
    snapshot.collectives = CollectiveHistory::countAll();
    snapshot.looks = _main.looks.load(std::memory_order_acquire);
    if (_main.generation.load(std::memory_order_relaxed) != generation)
        return false;
    snapshot.bytes = static_cast<unsigned>(size);
    snapshot.partner = operation ? static_cast<int>(size >> 32) : -1;
    if (operation && operation->collective != Collective::NONE) {
        communicator = latest.label;
        snapshot.number = latest.count;
        snapshot.bytes = CollectiveHistory::bytesOf(latest.word);
        snapshot.partner = CollectiveHistory::rootOf(latest.word);
    }
    snapshot.isInside = (generation & 1) != 0;
    snapshot.operations = (generation + 1) / 2;
    snapshot.generation = generation;
    snapshot.operation = operation ? shorten(operation->name) : std::string();
    snapshot.communicator = CommunicatorLabel::describe(communicator);
    return true;
}

OperationRecord::Snapshot OperationRecord::read() {
    constexpr int TRIES = 1000; // a rank that begins operations faster than this reads is none that stands
    Snapshot snapshot;
    for (int i = 0; i < TRIES && !readLine(snapshot); ++i) {
    }
    Commands& all = commands();
    const std::lock_guard lock(all.mutex);
    snapshot.generation += commandChanges.load(std::memory_order_relaxed);
    if (all.open.empty())
        return snapshot;
    const Command& command = all.open.back();
    snapshot.command = command.name;
    snapshot.commandSeconds = std::chrono::duration<double>(Clock::now() - command.begin).count();
    snapshot.failure = command.failure;
    // A command that began since then has counted on.
    snapshot.operations -= std::min(snapshot.operations, command.operations);
    snapshot.collectives -= std::min(snapshot.collectives, command.collectives);
    return snapshot;
}

std::uint64_t OperationRecord::getGeneration() {
    return _main.generation.load(std::memory_order_acquire) + commandChanges.load(std::memory_order_acquire);
}

void OperationRecord::beginCommand(const std::string& name) {
    const std::uint64_t operations = (_main.generation.load(std::memory_order_relaxed) + 1) / 2;
    Commands& all = commands();
    const std::lock_guard lock(all.mutex);
    all.open.push_back({name, Clock::now(), operations, CollectiveHistory::countAll()});
    step(commandChanges, 1);
}

void OperationRecord::setFailure(const std::string& message) {
    Commands& all = commands();
    const std::lock_guard lock(all.mutex);
    if (!all.open.empty())
        all.open.back().failure = message;
}

void OperationRecord::endCommand() {
    Commands& all = commands();
    const std::lock_guard lock(all.mutex);
    if (all.open.empty())
        return;
    all.open.pop_back();
    step(commandChanges, 1);
}

OperationRecord::Composite::Composite(const MessageOperation& operation)
    : _before(_line), _holds(_line == &_main) {
    if (_holds)
        CollectiveHistory::hold();
    beginNoted(operation);
    _line = &_unseen;
}

OperationRecord::Composite::Composite(const MessageOperation& operation, std::uint64_t communicator,
                                      unsigned bytes, int partner)
    : _before(_line), _holds(false) {
    begin(operation, communicator, bytes, partner);
    _line = &_unseen;
}

OperationRecord::Composite::~Composite() {
    _line = _before;
    end();
    if (_holds)
        CollectiveHistory::release();
}
