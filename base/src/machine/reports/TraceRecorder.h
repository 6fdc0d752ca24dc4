#pragma once

#include "kernel/EventTracker.h"
#include "kernel/profile/TraceLayout.h"
#include "machine/MachineExport.h"
#include "machine/messages/OperationTrace.h"

#include <array>
#include <cstddef>
#include <cstdint>
#include <map>
#include <mutex>
#include <string>
#include <unordered_map>
#include <vector>

/// Takes down the events, commands and operations of the main thread for a span of time, into memory.
///
/// Another thread switches it on and off while the main thread works. It ends by itself after a time. The
/// memory is taken at the begin and bounded; records that don't fit are counted.
class ORVEX_MACHINE_EXPORT TraceRecorder final : public OperationTrace, public EventTracker::Watcher {
public:
    using Record = TraceLayout::Record;

    /// The records that were taken down.
    struct Summary {
        std::uint64_t trace = 0;
        std::uint64_t begin = 0; ///< of the span [ticks]
        std::uint64_t end = 0;   ///< [ticks]
        std::uint32_t epoch = 0; ///< at the begin, as in a record
        std::size_t records = 0;
        std::size_t dropped = 0;
        std::size_t names = 0;
    };

    /// Of this process, to its very end.
    static TraceRecorder& getSingleton();

    // ---- Any thread.

    /// Begins a span; one that is at work is dropped.
    /// @param trace    a number that tells it from others, not 0
    /// @param seconds  after which it ends by itself
    /// @param records  for which there is room, or for less when memory is short
    void begin(std::uint64_t trace, double seconds, std::size_t records);
    /// Ends the span, when it hasn't ended yet. @throw InputError when `trace` isn't the last one
    Summary end(std::uint64_t trace);
    /// Records from the number `from` on, as bytes, in the order of their ends. After end().
    /// @throw InputError when `trace` isn't the last one
    std::string fetchRecords(std::uint64_t trace, std::size_t from, std::size_t count);
    /// Texts of the records in the same way.
    std::vector<std::string> fetchNames(std::uint64_t trace, std::size_t from, std::size_t count);
    /// Gives the memory back. Nothing when `trace` isn't the last one.
    void release(std::uint64_t trace);
    /// Ends a span whose time is up, and later gives its memory back when nobody has asked for it.
    void tick();

    // ---- Main thread: OperationTrace and EventTracker::Watcher.

    std::uint64_t open(const MessageOperation& operation, const Call& call,
                       std::uint64_t begin) noexcept override;
    void close(std::uint64_t token, int partner) noexcept override;
    void closeUnseen() noexcept override;
    void beginCommand(const std::string& name) noexcept override;
    void endCommand() noexcept override;
    void onStart(const char* className, const char* method) noexcept override;
    void onStop(const char* className, const char* method) noexcept override;

private:
    static constexpr std::size_t MAX_DEPTH = 256;
    static constexpr std::size_t NUMBER_REMEMBERED = 1024;

    /// The name of an event at these addresses, if it still stands there.
    struct Remembered {
        const char* className = nullptr;
        const char* method = nullptr;
        std::uint32_t name = 0;
    };
    struct Known {
        std::uint32_t name = 0;
        TraceLayout::Kind kind = TraceLayout::OPERATION;
    };

    TraceRecorder();
    bool isRecording(std::uint64_t now);
    void expect(std::uint64_t trace) const;
    void reserve(std::size_t records);
    void clear();
    void takeOpen();
    void finish(std::uint64_t now);
    void append(const Record& record);
    void pop(std::vector<Record>& stack, std::size_t depth, std::uint64_t now, unsigned flags = 0);
    void dropEndedUnseen(std::uint64_t now);
    Record make(TraceLayout::Kind kind, std::uint32_t name, std::uint64_t begin) const;
    std::uint32_t nameOf(const std::string& text);
    std::uint32_t nameOfEvent(const char* className, const char* method);
    const Known& know(const MessageOperation& operation);
    std::uint32_t nameOfLabel(std::uint64_t label);

    std::mutex _mutex; ///< guards all below
    bool _isOn = false;
    Summary _summary;
    std::uint64_t _lastTick = 0; ///< of the span, by its own time limit [ticks]
    std::uint64_t _asked = 0;    ///< when something was asked for last [ticks]
    std::size_t _room = 0;
    std::vector<Record> _records;
    std::vector<Record> _open;     ///< events and operations, the outermost first
    std::vector<Record> _commands; ///< the same of commands
    bool _hasUnseen = false;       ///< the first of `_open` is an operation that began before the span
    std::uint64_t _unseen = 0;     ///< its generation
    std::vector<std::string> _names;
    std::map<std::string, std::uint32_t, std::less<>> _nameNumbers;
    std::unordered_map<const MessageOperation*, Known> _operations;
    std::map<std::uint64_t, std::uint32_t> _labels;
    std::array<Remembered, NUMBER_REMEMBERED> _remembered{};
};
