#pragma once

#include "platform/PlatformExport.h"

#include <atomic>
#include <functional>
#include <memory>
#include <sstream>
#include <string>
#include <string_view>
#include <type_traits>
#include <vector>

namespace OS {

/// Diagnostics for people who look into a running job; not the console of the server.
///
///     OS::Log::instance("Default").info("MachineHost::bindProcesses", "Bound to @0@ of @1@", lpu, count);
///
/// The first text is the operation's full name; the source line is added by itself. @0@, @1@ ... stand for
/// the data behind the text. A line goes to the standard error stream and to the log file, if there is one. A
/// level that is off costs one test, and its data isn't turned into text. Any thread; not in a signal
/// handler.
class ORVEX_PLATFORM_EXPORT Log {
public:
    enum Level { DEBUG_LEVEL, INFO_LEVEL, WARNING_LEVEL, ERROR_LEVEL, OFF };

    /// The origin of a line. Made from the operation's name at the call.
    struct Context {
        Context(const char* operationName, int sourceLine = __builtin_LINE()) // NOLINT: meant to be implicit
            : operation(operationName), line(sourceLine) {}
        const char* operation;
        int line;
    };
    /// One line of the log, before it is formatted.
    struct Record {
        Level level;
        std::string operation;
        int line;
        std::string text; ///< with the data put in
    };

    /// The log of a channel, made on first use; it lives as long as the process.
    static Log& instance(const std::string& channel);

    Log(const Log&) = delete;
    Log& operator=(const Log&) = delete;
    ~Log();

    /// Lines below `level` are dropped. Warnings and errors are on at first.
    void setLevel(Level level) { _level.store(level, std::memory_order_relaxed); }
    Level getLevel() const { return _level.load(std::memory_order_relaxed); }
    bool isEnabled(Level level) const { return level >= _level.load(std::memory_order_relaxed); }

    template <class... Data>
    void debug(const Context& context, std::string_view text, const Data&... data) {
        log(DEBUG_LEVEL, context, text, data...);
    }
    template <class... Data>
    void info(const Context& context, std::string_view text, const Data&... data) {
        log(INFO_LEVEL, context, text, data...);
    }
    template <class... Data>
    void warning(const Context& context, std::string_view text, const Data&... data) {
        log(WARNING_LEVEL, context, text, data...);
    }
    template <class... Data>
    void error(const Context& context, std::string_view text, const Data&... data) {
        log(ERROR_LEVEL, context, text, data...);
    }

    /// Also appends the lines to a file. An empty path ends that. @return false when it can't be opened
    bool setFile(const std::wstring& path);
    /// Whether lines go to the standard error stream: they do at first.
    void setStandardError(bool on);
    /// A word that every line of every channel bears, "rank 3" say. None at first.
    static void setProcessTag(const std::string& tag);
    /// Called with every line that is written, on the writing thread, one line at a time; it writes no line
    /// itself. An empty function ends that.
    void setListener(std::function<void(const Record&)> listener);
    void flush();

    /// `text` with each @n@ replaced by the n-th datum; an @n@ without a datum stays.
    static std::string format(std::string_view text, const std::vector<std::string>& data);
    /// "debug", "info", "warning", "error", "off".
    static const char* getLevelName(Level level);

private:
    struct Impl;
    explicit Log(const std::string& channel);

    template <class... Data>
    void log(Level level, const Context& context, std::string_view text, const Data&... data) {
        if (isEnabled(level)) [[unlikely]]
            write(level, context, text, std::vector<std::string>{toText(data)...});
    }
    template <class Datum>
    static std::string toText(const Datum& datum) {
        if constexpr (std::is_convertible_v<const Datum&, std::wstring_view>)
            return narrow(datum);
        else if constexpr (std::is_convertible_v<const Datum&, std::string_view>)
            return std::string(std::string_view(datum));
        else if constexpr (std::is_same_v<Datum, bool>)
            return datum ? "true" : "false";
        else {
            std::ostringstream stream;
            stream << datum;
            return stream.str();
        }
    }
    static std::string narrow(std::wstring_view text);
    void write(Level level, const Context& context, std::string_view text,
               const std::vector<std::string>& data);

    std::atomic<Level> _level{WARNING_LEVEL};
    std::unique_ptr<Impl> _impl;
};

} // namespace OS
