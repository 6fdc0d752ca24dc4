#include "kernel/profile/ProfileReader.h"

#include "kernel/profile/CommunicatorLabel.h"
#include "kernel/profile/ProfileLayout.h"

#include "platform/PrivateFileReader.h"
#include "platform/Process.h"
#include "platform/StringHelper.h"
#include "platform/System.h"
#include "platform/TickClock.h"

#include <algorithm>
#include <cctype>
#include <cstddef>
#include <cstring>
#include <map>
#include <type_traits>

namespace {

using namespace ProfileLayout;

constexpr double NANOSECONDS = 1e9; ///< of a second

std::uint64_t valueOf(const Word& word) {
    return word.load(std::memory_order_relaxed);
}

/// Without what a terminal would obey. A text that was cut inside a character loses that.
template <std::size_t SIZE>
std::string textOf(const char (&field)[SIZE]) {
    constexpr int MAX_TAIL = 3; // bytes of a cut character
    std::string text(field, ::strnlen(field, SIZE));
    for (int i = 0; i < MAX_TAIL && !text.empty() && !StringHelper::isValidUtf8(text); ++i)
        if (const auto last = static_cast<unsigned char>(text.back()); last >= 0x80)
            text.pop_back();
    text = StringHelper::toValidUtf8(text);
    for (char& c : text)
        if (static_cast<unsigned char>(c) < 0x20 || c == 0x7F)
            c = '?';
    return text;
}

/// As in "allReduce", for "Communicator::AllReduce".
std::string shorten(const std::string& name) {
    std::string text = name.substr(name.rfind(':') + 1); // all of it without one
    if (!text.empty())
        text[0] = static_cast<char>(std::tolower(static_cast<unsigned char>(text[0])));
    return text;
}

ProfileSnapshot::Life judgeLife(const Header& header) {
    using Life = ProfileSnapshot::Life;
    const std::string bootId = Platform::system().getBootId();
    if (bootId.empty())
        return Life::UNSEEN;
    if (bootId != textOf(header.bootId))
        return Life::DIED; // with its host
    if (header.pidNamespace == 0 || header.pidNamespace != Platform::process().getPidNamespace())
        return Life::UNSEEN;
    return Platform::process().isAlive(header.pid) &&
                   Platform::process().getStartStamp(header.pid) == header.startStamp
               ? Life::LIVES
               : Life::DIED;
}

/// Why these are no beginning of a profile that this program reads; empty when they are one.
std::string judge(const Header& header, std::size_t fileSize) {
    if (valueOf(header.magic) == 0)
        return "it isn't complete: its process is starting, or died as it started";
    if (valueOf(header.magic) != MAGIC)
        return "it holds no profile";
    if (header.byteOrder != BYTE_ORDER_MARK)
        return "it was written in another order of bytes";
    if (header.version != VERSION)
        return "its form is number " + std::to_string(header.version) + ", and this program reads number " +
               std::to_string(VERSION);
    if (header.size != sizeof(Page) || fileSize != sizeof(Page))
        return "it has " + std::to_string(fileSize) + " bytes in place of " + std::to_string(sizeof(Page));
    return {};
}

/// The same of the values.
std::string judgeValues(const Header& header) {
    constexpr unsigned MAX_RANKS = 1u << 28;
    constexpr double MIN_RATE = 1e3;  // [1/s]
    constexpr double MAX_RATE = 1e12; // [1/s]
    if (header.ranks > MAX_RANKS || header.rank >= header.ranks)
        return "it tells of rank " + std::to_string(header.rank) + " of " + std::to_string(header.ranks);
    if (header.pid <= 0 || header.masterPid <= 0)
        return "it names no process";
    if (!(header.ticksPerSecond >= MIN_RATE && header.ticksPerSecond <= MAX_RATE))
        return "its clock can't be understood";
    return {};
}

/// Turns the ticks of a profile into times.
class Clock {
public:
    explicit Clock(const Header& header)
        : _began(static_cast<double>(header.beganAt) / NANOSECONDS), _beginTick(header.beginTick),
          _rate(header.ticksPerSecond) {}

    /// Negative when `to` is before `from`.
    double between(std::uint64_t from, std::uint64_t to) const {
        return static_cast<double>(static_cast<std::int64_t>(to - from)) / _rate;
    }
    double length(std::uint64_t ticks) const { return static_cast<double>(ticks) / _rate; }
    double timeOf(std::uint64_t tick) const { return _began + between(_beginTick, tick); }

private:
    double _began;
    std::uint64_t _beginTick;
    double _rate;
};

std::uint64_t difference(std::uint64_t now, std::uint64_t before) {
    return now > before ? now - before : 0;
}

} // namespace

/// Two copies, one after the other. A record that is the same in both, with an even sequence, is whole: had
/// it been written during the first copy, the second would hold another sequence.
struct ProfileReader::Copies {
    Page first;
    Page second;
    std::uint64_t generation = 0; ///< after both
};

namespace {

/// Makes a snapshot of two copies.
class Decoder {
public:
    Decoder(const Platform::PrivateFileReader& file, Page& first, Page& second, std::uint64_t generation,
            ProfileSnapshot::Life life)
        : _file(file), _first(first), _second(second), _generation(generation), _clock(second.header) {
        _snapshot.life = life;
    }

    ProfileSnapshot run(ProfileReader::Extent extent) {
        readHeader();
        readBoard();
        findMoment();
        readOperations();
        readCommands();
        if (extent == ProfileReader::Extent::WHOLE) {
            readBills();
            readEvents();
        }
        return std::move(_snapshot);
    }

private:
    /// Sees that a record isn't being written, and looks again when it is. @return false when it stays so
    template <class Record>
    bool settle(Record& first, Record& second) {
        constexpr int MAX_LOOKS = 4;
        const std::size_t offset = static_cast<std::size_t>(reinterpret_cast<const char*>(&second) -
                                                            reinterpret_cast<const char*>(&_second));
        for (int i = 0; i < MAX_LOOKS; ++i) {
            void* const one = &first;
            void* const other = &second;
            if (valueOf(second.sequence) % 2 == 0 && std::memcmp(one, other, sizeof(Record)) == 0)
                return true;
            if (_snapshot.life == ProfileSnapshot::Life::DIED || !_file.read(offset, one, sizeof(Record)) ||
                !_file.read(offset, other, sizeof(Record)))
                break;
        }
        ++_snapshot.halfWritten;
        return false;
    }

    void readHeader() {
        const Header& header = _second.header;
        _snapshot.rank = header.rank;
        _snapshot.ranks = header.ranks;
        _snapshot.pid = header.pid;
        _snapshot.masterPid = header.masterPid;
        _snapshot.host = textOf(header.host);
        _snapshot.masterHost = textOf(header.masterHost);
        _snapshot.job = textOf(header.job);
        _snapshot.product = textOf(header.product);
        _snapshot.began = _clock.timeOf(header.beginTick);
    }

    void readBoard() {
        const Board& board = _second.board;
        _snapshot.begunOperations = begun(valueOf(board.generation));
        _snapshot.isInside = valueOf(board.generation) % 2 != 0;
        _snapshot.bytes = valueOf(board.bytes);
        _snapshot.waitSeconds = _clock.length(getWaitTicks());
        _snapshot.looks = valueOf(board.looks);
        _snapshot.lentSeconds = _clock.length(valueOf(board.lentTicks));
    }

    /// Without those in which the rank had lent its processor.
    std::uint64_t getWaitTicks() const {
        const std::uint64_t all = valueOf(_second.board.waitTicks);
        return all - std::min(valueOf(_second.board.lentTicks), all);
    }

    static std::uint64_t begun(std::uint64_t generation) { return generation / 2 + generation % 2; }

    void noteActivity(std::uint64_t tick) {
        if (tick != 0 && _clock.between(_lastTick, tick) > 0.0)
            _lastTick = tick;
    }

    /// Finds what the main thread noted last. The moment of a living rank is now.
    void findMoment() {
        _lastTick = _second.header.beginTick;
        for (const ProfileLayout::Operation& operation : _second.board.operations) {
            noteActivity(valueOf(operation.begin));
            noteActivity(valueOf(operation.end));
        }
        for (std::size_t i = 0; i < std::min<std::uint64_t>(valueOf(_second.depth), MAX_DEPTH); ++i)
            if (settle(_first.commands[i], _second.commands[i]))
                noteActivity(_second.commands[i].beginTick);
        _snapshot.halfWritten = 0; // counted where they are read
        _momentTick = _lastTick;
        if (const std::uint64_t now = Platform::TickClock::read();
            _snapshot.life == ProfileSnapshot::Life::LIVES && _clock.between(_lastTick, now) > 0.0)
            _momentTick = now;
        _snapshot.lastActivity = std::max(_clock.timeOf(_lastTick), getEndOfLastBill());
        _snapshot.moment = _snapshot.life == ProfileSnapshot::Life::LIVES ? _clock.timeOf(_momentTick)
                                                                          : _snapshot.lastActivity;
    }

    /// A serial process sends no messages, so the end of its last command is all that tells when it lived.
    double getEndOfLastBill() {
        const std::uint64_t count = valueOf(_second.bills);
        const std::size_t place = static_cast<std::size_t>((count - 1) % NUMBER_BILLS);
        const ProfileLayout::Bill& bill = _second.bill[place];
        if (count == 0 || valueOf(bill.sequence) % 2 != 0)
            return 0.0;
        return (static_cast<double>(bill.beganAt) + static_cast<double>(bill.wallTime)) / NANOSECONDS;
    }

    /// A name that the first copy has an address for is whole in the second one.
    void readNames() {
        for (std::size_t i = 0; i < NUMBER_NAMES; ++i)
            if (const std::uint64_t address = valueOf(_first.names[i].address); address != 0)
                _names.try_emplace(address, shorten(textOf(_second.names[i].text)));
    }

    /// Those that were begun before the first copy, and whose place can't have been taken since.
    void readOperations() {
        readNames();
        const std::uint64_t newest = begun(valueOf(_first.board.generation));
        const std::uint64_t next = begun(_generation) + 1;
        for (std::uint64_t number = newest; number > 0 && number + NUMBER_OPERATIONS > next; --number) {
            if (_snapshot.operations.size() == NUMBER_OPERATIONS)
                break; // the counts make no sense
            addOperation(number);
        }
    }

    void addOperation(std::uint64_t number) {
        const ProfileLayout::Operation& slot = _second.board.operations[(number - 1) % NUMBER_OPERATIONS];
        ProfileSnapshot::Operation operation;
        operation.number = number;
        if (const auto name = _names.find(valueOf(slot.name)); name != _names.end())
            operation.name = name->second;
        operation.communicator = CommunicatorLabel::describe(valueOf(slot.communicator));
        operation.bytes = static_cast<std::uint32_t>(valueOf(slot.size));
        operation.partner = static_cast<int>(static_cast<std::uint32_t>(valueOf(slot.size) >> 32));
        operation.isOpen = _snapshot.isInside && number == _snapshot.begunOperations;
        const std::uint64_t begin = valueOf(slot.begin);
        const std::uint64_t end = operation.isOpen ? _momentTick : valueOf(slot.end);
        operation.isTimed = begin != 0 && end != 0;
        if (operation.isTimed) {
            operation.began = _clock.timeOf(begin);
            operation.seconds = std::max(0.0, _clock.between(begin, end));
        }
        _snapshot.operations.push_back(std::move(operation));
    }

    void readCommands() {
        _snapshot.depth = valueOf(_second.depth);
        for (std::size_t i = 0; i < std::min<std::uint64_t>(_snapshot.depth, MAX_DEPTH); ++i) {
            const ProfileLayout::Command& slot = _second.commands[i];
            if (!settle(_first.commands[i], _second.commands[i]))
                continue;
            ProfileSnapshot::Command command;
            command.name = textOf(slot.name);
            command.began = static_cast<double>(slot.beganAt) / NANOSECONDS;
            command.seconds = std::max(0.0, _clock.between(slot.beginTick, _momentTick));
            command.operations = difference(_snapshot.begunOperations, slot.operations);
            command.bytes = difference(_snapshot.bytes, slot.bytes);
            command.waitSeconds = _clock.length(difference(getWaitTicks(), slot.waitTicks));
            command.processorSeconds = static_cast<double>(slot.processorTime) / NANOSECONDS;
            command.memory = slot.memory;
            _snapshot.commands.push_back(std::move(command));
        }
    }

    void readBills() {
        const std::uint64_t count = valueOf(_second.bills);
        for (std::uint64_t i = 0; i < std::min<std::uint64_t>(count, NUMBER_BILLS); ++i) {
            const std::uint64_t number = count - i;
            ProfileLayout::Bill& slot = _second.bill[(number - 1) % NUMBER_BILLS];
            if (!settle(_first.bill[(number - 1) % NUMBER_BILLS], slot))
                continue;
            ProfileSnapshot::Bill bill;
            bill.number = number;
            bill.command = textOf(slot.command);
            bill.began = static_cast<double>(slot.beganAt) / NANOSECONDS;
            bill.wallSeconds = static_cast<double>(slot.wallTime) / NANOSECONDS;
            bill.processorSeconds = static_cast<double>(slot.processorTime) / NANOSECONDS;
            bill.waitSeconds = static_cast<double>(slot.waitTime) / NANOSECONDS;
            bill.operations = slot.operations;
            bill.bytes = slot.bytes;
            bill.peakMemory = slot.peakMemory;
            bill.addedMemory = slot.addedMemory;
            bill.hasFailed = slot.hasFailed != 0;
            _snapshot.bills.push_back(std::move(bill));
        }
    }

    void readEvents() {
        for (std::size_t i = 0; i < NUMBER_EVENTS; ++i) {
            const ProfileLayout::Event& slot = _second.events[i];
            if (!settle(_first.events[i], _second.events[i]) || slot.name[0] == '\0')
                continue;
            ProfileSnapshot::Event event;
            event.name = textOf(slot.name);
            event.count = slot.count;
            event.seconds = static_cast<double>(slot.nanoseconds) / NANOSECONDS;
            event.isOpen = slot.openedAt != 0;
            if (event.isOpen)
                event.openSeconds = std::max(0.0, _clock.between(slot.openedAt, _momentTick));
            _snapshot.events.push_back(std::move(event));
        }
    }

    const Platform::PrivateFileReader& _file;
    Page& _first;
    Page& _second;
    std::uint64_t _generation;
    Clock _clock;
    std::uint64_t _lastTick = 0;
    std::uint64_t _momentTick = 0;
    std::map<std::uint64_t, std::string> _names;
    ProfileSnapshot _snapshot;
};

} // namespace

ProfileReader::ProfileReader(const std::string& path, std::unique_ptr<Platform::PrivateFileReader> file)
    : _path(path), _file(std::move(file)), _copies(std::make_unique<Copies>()) {}

ProfileReader::~ProfileReader() = default;

std::unique_ptr<ProfileReader> ProfileReader::open(const std::string& path, std::string& reason) {
    auto file = Platform::PrivateFileReader::open(path, reason);
    return file ? std::unique_ptr<ProfileReader>(new ProfileReader(path, std::move(file))) : nullptr;
}

std::optional<ProfileSnapshot> ProfileReader::read(std::string& reason, Extent extent) {
    Page& first = _copies->first;
    Page& second = _copies->second;
    if (!_file->read(0, &first, sizeof(Header))) {
        reason = "it is too short for a profile";
        return std::nullopt;
    }
    reason = judge(first.header, _file->getSize());
    if (!reason.empty())
        return std::nullopt;
    // Before the copies: those of a dead rank are the last ones.
    const ProfileSnapshot::Life life = judgeLife(first.header);
    if (!_file->read(0, &first, sizeof first) || !_file->read(0, &second, sizeof second) ||
        !_file->read(offsetof(Page, board) + offsetof(Board, generation), &_copies->generation,
                     sizeof _copies->generation)) {
        reason = "it has become shorter";
        return std::nullopt;
    }
    reason = judgeValues(second.header);
    if (!reason.empty())
        return std::nullopt;
    ProfileSnapshot snapshot = Decoder(*_file, first, second, _copies->generation, life).run(extent);
    snapshot.path = _path;
    return snapshot;
}

std::optional<ProfileSnapshot> ProfileReader::readFile(const std::string& path, std::string& reason,
                                                       Extent extent) {
    const std::unique_ptr<ProfileReader> reader = open(path, reason);
    return reader ? reader->read(reason, extent) : std::nullopt;
}
