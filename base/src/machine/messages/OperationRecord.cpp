#include "machine/messages/OperationRecord.h"

#include "machine/messages/CollectiveHistory.h"

#include <algorithm>
#include <bit>
#include <cctype>
#include <chrono>
#include <cstddef>
#include <cstring>
#include <mutex>
#include <string_view>
#include <utility>
#include <vector>

constinit ProfileLayout::Page OperationRecord::_ownPage{};
constinit ProfileLayout::Board OperationRecord::_unseen{};
constinit ProfileLayout::Board* OperationRecord::_board = &OperationRecord::_ownPage.board;
constinit std::atomic<ProfileLayout::Page*> OperationRecord::_page{&OperationRecord::_ownPage};
constinit const MessageOperation* OperationRecord::_known[NUMBER_KNOWN] = {};

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

/// Enters the name into the page, unless it stands there.
void OperationRecord::learn(const MessageOperation& operation) {
    _known[hashOf(operation)] = &operation;
    for (ProfileLayout::Name& name : getPage().names) {
        const std::uint64_t address = name.address.load(std::memory_order_relaxed);
        if (address == addressOf(operation))
            return;
        if (address != 0)
            continue;
        std::strncpy(name.text, operation.name, sizeof name.text - 1);
        name.address.store(addressOf(operation), std::memory_order_release);
        return;
    }
}

void OperationRecord::moveTo(ProfileLayout::Page& page) {
    ProfileLayout::Page& before = getPage();
    // The two have the same layout, and nobody else writes to either. The header stays.
    constexpr std::size_t BEGIN = offsetof(ProfileLayout::Page, board);
    std::memcpy(reinterpret_cast<std::byte*>(&page) + BEGIN,
                reinterpret_cast<const std::byte*>(&before) + BEGIN, sizeof page - BEGIN);
    _page.store(&page, std::memory_order_release);
    if (_board == &before.board)
        _board = &page.board;
}

void OperationRecord::beginNoted(const MessageOperation& operation) {
    const CollectiveHistory::Latest latest = CollectiveHistory::getLatest();
    begin(operation, latest.label, CollectiveHistory::bytesOf(latest.word),
          CollectiveHistory::rootOf(latest.word));
}

bool OperationRecord::readBoard(Snapshot& snapshot) {
    ProfileLayout::Board& board = getPage().board;
    const std::uint64_t generation = board.generation.load(std::memory_order_acquire);
    // Between operations, that of the last one.
    const ProfileLayout::Operation& slot = slotOf(board, generation - ((generation & 1) == 0 ? 2 : 0));
    const auto* const operation = std::bit_cast<const MessageOperation*>(
        slot.name.load(std::memory_order_acquire)); // addressOf() wrote it in this process
    const std::uint64_t communicator = slot.communicator.load(std::memory_order_acquire);
    const std::uint64_t size = slot.size.load(std::memory_order_acquire);
    const CollectiveHistory::Latest latest = CollectiveHistory::getLatest();
    snapshot.collectives = CollectiveHistory::countAll();
    snapshot.looks = board.looks.load(std::memory_order_acquire);
    if (board.generation.load(std::memory_order_relaxed) != generation)
        return false;
    if (operation && operation->collective != Collective::NONE)
        snapshot.number = latest.count;
    snapshot.bytes = static_cast<unsigned>(size);
    snapshot.partner = operation ? static_cast<int>(size >> 32) : -1;
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
    for (int i = 0; i < TRIES && !readBoard(snapshot); ++i) {
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

std::uint64_t OperationRecord::getCommandChanges() {
    return commandChanges.load(std::memory_order_acquire);
}

void OperationRecord::leave() noexcept {
    if (_board != &_unseen)
        OperationTrace::leaveUnseen();
}

std::uint64_t OperationRecord::getGeneration() {
    return getPage().board.generation.load(std::memory_order_acquire) +
           commandChanges.load(std::memory_order_acquire);
}

void OperationRecord::beginCommand(const std::string& name) {
    const std::uint64_t operations = (getPage().board.generation.load(std::memory_order_relaxed) + 1) / 2;
    {
        Commands& all = commands();
        const std::lock_guard lock(all.mutex);
        all.open.push_back({name, Clock::now(), operations, CollectiveHistory::countAll()});
        step(commandChanges, 1);
    }
    if (OperationTrace::isOn())
        OperationTrace::get().beginCommand(name);
}

void OperationRecord::setFailure(const std::string& message) {
    Commands& all = commands();
    const std::lock_guard lock(all.mutex);
    if (!all.open.empty())
        all.open.back().failure = message;
}

void OperationRecord::endCommand() {
    if (OperationTrace::isOn())
        OperationTrace::get().endCommand();
    Commands& all = commands();
    const std::lock_guard lock(all.mutex);
    if (all.open.empty())
        return;
    all.open.pop_back();
    step(commandChanges, 1);
}

OperationRecord::Composite::Composite(const MessageOperation& operation)
    : _before(_board), _holds(_board != &_unseen) {
    if (_holds)
        CollectiveHistory::hold();
    beginNoted(operation);
    _board = &_unseen;
    if (OperationTrace::isOn()) {
        const CollectiveHistory::Latest latest = CollectiveHistory::getLatest();
        trace(operation, {.label = latest.label, .number = latest.count});
    }
}

OperationRecord::Composite::Composite(const MessageOperation& operation, std::uint64_t communicator,
                                      unsigned bytes, int partner)
    : _before(_board), _holds(false) {
    begin(operation, communicator, bytes, partner);
    _board = &_unseen;
    if (OperationTrace::isOn())
        trace(operation, {.label = communicator, .bytes = bytes, .partner = partner});
}

void OperationRecord::Composite::trace(const MessageOperation& operation, const OperationTrace::Call& call) {
    _token = OperationTrace::get().open(operation, call, 0);
}

OperationRecord::Composite::~Composite() {
    if (_token != 0)
        OperationTrace::get().close(_token, -1);
    _board = _before;
    end();
    if (_holds)
        CollectiveHistory::release();
}
