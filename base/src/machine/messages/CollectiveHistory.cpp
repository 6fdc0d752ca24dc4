#include "machine/messages/CollectiveHistory.h"

#include <algorithm>
#include <map>
#include <utility>

constinit std::array<CollectiveHistory::Entry, CollectiveHistory::RING_SIZE> CollectiveHistory::_ring{};
constinit std::atomic<std::uint64_t> CollectiveHistory::_position{0};
constinit std::atomic<std::uint32_t> CollectiveHistory::_latestCount{0};
constinit std::atomic<std::uint64_t> CollectiveHistory::_heldPosition{0};
constinit std::atomic<std::uint32_t> CollectiveHistory::_heldCount{0};

namespace {

constexpr std::uint64_t mix(std::uint64_t value) {
    value = (value ^ (value >> 30)) * 0xBF58476D1CE4E5B9;
    value = (value ^ (value >> 27)) * 0x94D049BB133111EB;
    return value ^ (value >> 31);
}

/// The number that gives 1 with `factor`: each round doubles the bits that are right.
constexpr std::uint64_t invert(std::uint64_t factor) {
    std::uint64_t inverse = factor;
    for (int round = 0; round < 6; ++round)
        inverse *= 2 - factor * inverse;
    return inverse;
}

const char* nameOf(Collective collective) {
    switch (collective) {
    case Collective::NONE:
        break;
    case Collective::SYNCHRONISE:
        return "synchronise";
    case Collective::SLEEPING_SYNCHRONISE:
        return "noSpinSynchronise";
    case Collective::SLEEPING_BROADCAST:
        return "noSpinBroadcast";
    case Collective::BROADCAST:
        return "broadcast";
    case Collective::GATHER:
        return "gather";
    case Collective::GATHER_VECTOR:
        return "gatherVector";
    case Collective::ALL_GATHER:
        return "allGather";
    case Collective::ALL_GATHER_VECTOR:
        return "allGatherVector";
    case Collective::SCATTER:
        return "scatter";
    case Collective::SCATTER_VECTOR:
        return "scatterVector";
    case Collective::ALL_TO_ALL:
        return "allToAll";
    case Collective::ALL_TO_ALL_VECTOR:
        return "allToAllVector";
    case Collective::REDUCE:
        return "reduce";
    case Collective::ALL_REDUCE:
        return "allReduce";
    case Collective::SCAN:
        return "scan";
    case Collective::REDUCE_SCATTER:
        return "reduceScatter";
    case Collective::CREATE_COMMUNICATOR:
        return "createCommunicator";
    case Collective::CREATE_SHARED_MEMORY_COMMUNICATORS:
        return "createSharedMemCommunicators";
    case Collective::OPEN_FILE:
        return "open of a file";
    case Collective::READ_FILE:
        return "readAtAll of a file";
    case Collective::WRITE_FILE:
        return "writeAtAll of a file";
    case Collective::CREATE_WINDOW:
        return "making of a shared-memory window";
    case Collective::LEAVE_HYBRID_CONTEXT:
        return "leaveHybridContext";
    }
    return "nothing more";
}

/// By the wrapper's numbers.
constexpr const char* REDUCTIONS[] = {"",
                                      "max",
                                      "min",
                                      "sum",
                                      "product",
                                      "bitwise and",
                                      "bitwise or",
                                      "logical and",
                                      "logical or",
                                      "logical xor",
                                      "bitwise xor",
                                      "max location",
                                      "min location"};
constexpr const char* TYPES[] = {"",
                                 "bool",
                                 "byte",
                                 "char",
                                 "signed char",
                                 "unsigned char",
                                 "short",
                                 "unsigned",
                                 "int",
                                 "float",
                                 "double",
                                 "long double",
                                 "long long",
                                 "unsigned long long",
                                 "unsigned short",
                                 "long",
                                 "unsigned long",
                                 "wchar_t",
                                 "complex float",
                                 "complex double",
                                 "complex long double",
                                 "float with location",
                                 "double with location",
                                 "long with location",
                                 "int with location",
                                 "long double with location"};

struct Used {
    std::uint64_t hash = 0;
    std::uint32_t count = 0;
};

} // namespace

/// A command at work. The histories hold its counts, `outer` those of the command around it.
struct CollectiveHistory::Level {
    std::uint64_t start = 0; ///< of its words in the ring
    std::map<CollectiveHistory*, Used> outer = {};
    /// Contributions of communicators that are gone: by number, as far as they are few, and the rest.
    std::map<std::uint32_t, std::uint64_t> gone = {};
    std::uint64_t rest = 0;
};

/// Main thread.
struct CollectiveHistory::Registry {
    std::vector<CollectiveHistory*> live = {};
    std::vector<Level> levels = std::vector<Level>(1); ///< the first is that between commands
};

CollectiveHistory::Registry& CollectiveHistory::registry() {
    static auto* const registry = new Registry; // communicators may die at the very end of the process
    return *registry;
}

// ---- Words.

std::string CollectiveHistory::describe(std::uint64_t word) {
    const auto collective = static_cast<Collective>(word >> 59);
    const auto reduction = (word >> 54) & 31;
    const auto type = (word >> 48) & 63;
    const int root = rootOf(word);
    const unsigned bytes = bytesOf(word);
    std::string details;
    const auto add = [&details](const std::string& text) { details += (details.empty() ? "" : ", ") + text; };
    if (root >= 0)
        add("root " + std::to_string(root));
    if (bytes != 0)
        add(std::to_string(bytes) + " bytes");
    if (reduction != 0)
        add(reduction < std::size(REDUCTIONS) ? REDUCTIONS[reduction] : "a function");
    if (type != 0 && type < std::size(TYPES))
        add(std::string("of ") + TYPES[type]);
    return nameOf(collective) + (details.empty() ? "" : "(" + details + ")");
}

std::uint64_t CollectiveHistory::takeBack(std::uint64_t hash, std::uint64_t word) {
    constexpr std::uint64_t inverse = invert(FACTOR);
    return (std::rotr(hash, TURN) * inverse) ^ word;
}

// ---- One communicator.

CollectiveHistory::CollectiveHistory(unsigned size, unsigned rank) : _label(0), _size(size), _rank(rank) {
    registry().live.push_back(this);
    relabel();
}

CollectiveHistory::~CollectiveHistory() {
    constexpr std::size_t MAX_KEPT = 1024;
    Registry& all = registry();
    std::erase(all.live, this);
    if (_number == NO_NUMBER)
        return;
    const auto keep = [this](Level& level, std::uint64_t hash) {
        const std::uint64_t share = contribution(hash);
        if (level.gone.size() < MAX_KEPT || level.gone.count(_number) != 0)
            level.gone[_number] += share;
        else
            level.rest += share;
    };
    // The counts of the innermost command are here, those of each outer one in the level inside it.
    Used used{_hash, _count};
    for (auto level = all.levels.rbegin(); level != all.levels.rend() - 1; ++level) {
        if (used.count != 0)
            keep(*level, used.hash);
        const auto outer = level->outer.find(this);
        used = outer == level->outer.end() ? Used() : outer->second;
        level->outer.erase(this);
    }
}

void CollectiveHistory::noteFromOutside(std::uint64_t word) {
    note(word);
}

void CollectiveHistory::setNumber(std::uint32_t number) {
    _number = number;
    relabel();
}

void CollectiveHistory::setName(Name name) {
    _name = name;
    relabel();
}

std::uint32_t CollectiveHistory::makeNumber(std::uint32_t key) {
    if (_number == NO_NUMBER)
        return NO_NUMBER;
    const std::uint64_t own = std::uint64_t(_number) << 32 | ++_creations;
    const auto number = static_cast<std::uint32_t>(mix(mix(own) + key)) & NONE_LEFT;
    return number <= GLOBAL_NUMBER || number == NONE_LEFT ? GLOBAL_NUMBER + 1 : number;
}

void CollectiveHistory::relabel() {
    // A command inside another one counts from 0 again: its words have another label.
    const auto depth = static_cast<std::uint32_t>(registry().levels.size());
    const std::uint32_t tag = _number == NO_NUMBER ? NO_NUMBER : _number ^ (depth << 16);
    _label = CommunicatorLabel::make(tag, _name, _size);
}

std::uint64_t CollectiveHistory::contribution(std::uint64_t hash) const {
    // The factors of all ranks have the sum 0.
    const std::uint64_t size = _size;
    const std::uint64_t factor = _rank != 0 ? _rank : 0 - size * (size - 1) / 2;
    return factor * hash;
}

// ---- All communicators of this process.

std::uint64_t CollectiveHistory::countAll() {
    return _position.load(std::memory_order_acquire);
}

CollectiveHistory::Latest CollectiveHistory::getLatest() {
    const std::uint64_t held = _heldPosition.load(std::memory_order_acquire);
    const Entry& entry = _ring[((held != 0 ? held : countAll()) - 1) % RING_SIZE];
    const std::atomic<std::uint32_t>& count = held != 0 ? _heldCount : _latestCount;
    return {entry.word.load(std::memory_order_acquire), entry.label.load(std::memory_order_acquire),
            count.load(std::memory_order_acquire)};
}

void CollectiveHistory::hold() {
    _heldCount.store(_latestCount.load(std::memory_order_relaxed), std::memory_order_release);
    _heldPosition.store(countAll(), std::memory_order_release);
}

void CollectiveHistory::beginCommand() {
    Registry& all = registry();
    all.levels.push_back({countAll()});
    for (CollectiveHistory* const history : all.live) {
        all.levels.back().outer[history] = {history->_hash, history->_count};
        history->_hash = 0;
        history->_count = 0;
        history->relabel();
    }
}

void CollectiveHistory::endCommand() {
    Registry& all = registry();
    if (all.levels.size() == 1)
        return;
    const std::map<CollectiveHistory*, Used> outer = std::move(all.levels.back().outer);
    all.levels.pop_back();
    for (CollectiveHistory* const history : all.live) {
        const auto before = outer.find(history);
        const Used used = before == outer.end() ? Used() : before->second;
        history->_hash = used.hash;
        history->_count = used.count;
        history->relabel();
    }
}

CollectiveHistory::Summary CollectiveHistory::summarise() {
    Summary summary;
    const Level& level = registry().levels.back();
    summary.combination = level.rest;
    for (const auto& [number, share] : level.gone)
        summary.combination += share;
    for (const CollectiveHistory* const history : registry().live) {
        if (history->_number == GLOBAL_NUMBER) {
            summary.hash = history->_hash;
            summary.count = history->_count;
        } else if (history->_number != NO_NUMBER) {
            summary.combination += history->contribution(history->_hash);
        }
    }
    return summary;
}

std::uint64_t CollectiveHistory::contributionOf(std::uint32_t number) {
    const Level& level = registry().levels.back();
    const auto gone = level.gone.find(number);
    std::uint64_t sum = gone == level.gone.end() ? 0 : gone->second;
    for (const CollectiveHistory* const history : registry().live)
        if (history->_number == number)
            sum += history->contribution(history->_hash);
    return sum;
}

std::uint32_t CollectiveHistory::nextUsed(std::uint32_t number) {
    const Level& level = registry().levels.back();
    number = std::max(number, GLOBAL_NUMBER);
    const auto gone = level.gone.upper_bound(number);
    std::uint32_t next = gone == level.gone.end() ? NONE_LEFT : gone->first;
    for (const CollectiveHistory* const history : registry().live)
        if (history->_number > number && history->_count != 0)
            next = std::min(next, history->_number);
    return next;
}

CollectiveHistory::Recent CollectiveHistory::recall(std::uint32_t number) {
    Registry& all = registry();
    Recent recent;
    const auto found =
        std::find_if(all.live.begin(), all.live.end(),
                     [number](const CollectiveHistory* history) { return history->_number == number; });
    if (found == all.live.end())
        return recent;
    const CollectiveHistory& history = **found;
    recent.isMember = true;
    recent.size = history._size;
    recent.first = history._count;
    recent.before = history._hash;
    const std::uint64_t position = countAll();
    const std::uint64_t kept = std::min<std::uint64_t>(position - all.levels.back().start, RING_SIZE);
    for (std::uint64_t back = 1; back <= kept && recent.first != 0; ++back) {
        const Entry& entry = _ring[(position - back) % RING_SIZE];
        if (entry.label.load(std::memory_order_relaxed) != history._label)
            continue;
        const std::uint64_t word = entry.word.load(std::memory_order_relaxed);
        recent.words.push_back(word);
        recent.before = takeBack(recent.before, word);
        --recent.first;
    }
    std::reverse(recent.words.begin(), recent.words.end());
    return recent;
}
