#include "mpiwrapper/MpiTrace.h"

#include "mpiwrapper/MpiFunctionTable.h"

#include <algorithm>
#include <chrono>
#include <cstdarg>
#include <cstdio>
#include <string_view>

namespace {

// Any thread may be in a traced call while tracing is switched.
MpiDriverFunctions tracedTarget;
std::atomic<int> tracedRank = -1;

/// One line of text with a limit, written in one piece so that the lines of several ranks don't mix.
class TraceLine {
public:
    void add(const char* format, ...) __attribute__((format(printf, 2, 3))) {
        va_list arguments;
        va_start(arguments, format);
        const int added = std::vsnprintf(_text + _length, CAPACITY - _length, format, arguments);
        va_end(arguments);
        if (added > 0)
            _length = std::min(_length + static_cast<std::size_t>(added), CAPACITY - 1);
    }

    void write() {
        _text[_length] = '\n';
        // A trace that can't be written must not disturb the call that it tells of.
        static_cast<void>(std::fwrite(_text, 1, _length + 1, stderr));
    }

private:
    static constexpr std::size_t CAPACITY = 1024;
    std::size_t _length = 0;
    char _text[CAPACITY + 1];
};

/// Walks through the names in a text such as "(buffer, count)".
class NameWalker {
public:
    explicit NameWalker(std::string_view names) : _rest(names.substr(1, names.size() - 2)) {}
    std::string_view next() {
        const std::size_t end = std::min(_rest.find(','), _rest.size());
        const std::string_view name = _rest.substr(0, end);
        _rest.remove_prefix(std::min(end + 2, _rest.size()));
        return name;
    }

private:
    std::string_view _rest;
};

/// Input and output of a call as text.
class ArgumentWriter {
public:
    ArgumentWriter(TraceLine& line, const char* names) : _line(line), _inputs(names), _outputs(names) {}

    template <class T>
    void input(T value) {
        const std::string_view name = _inputs.next();
        _line.add("%s%.*s", _position ? ", " : "", static_cast<int>(name.size()), name.data());
        writeInput(name, value);
        ++_position;
    }
    template <class T>
    void output(T value) {
        const std::string_view name = _outputs.next();
        writeOutput(name, value);
    }

private:
    void writeInput(std::string_view, int value) {
        _line.add("=%d", value);
        _latestInt = value;
    }
    void writeInput(std::string_view, long long value) { _line.add("=%lld", value); }
    void writeInput(std::string_view, const char* value) { _line.add("=\"%.80s\"", value ? value : ""); }
    void writeInput(std::string_view, const void* value) { _line.add("=%p", value); }
    void writeInput(std::string_view, OXM_MPI_User_function value) {
        _line.add("=%p", reinterpret_cast<void*>(value));
    }
    void writeInput(std::string_view name, int* value) {
        if (name == "requests") {
            // The count of an array of requests stands just before it.
            constexpr int SHOWN = 8;
            _line.add("=[");
            for (int i = 0; value && i < std::min(_latestInt, SHOWN); ++i)
                _line.add("%s%d", i ? " " : "", value[i]);
            _line.add(_latestInt > SHOWN ? " ...]" : "]");
        } else if (_position == 0 && value && isHandleName(name)) {
            _line.add("=%d", *value);
        }
    }
    // The values that the call sets are told after it.
    void writeInput(std::string_view, OXM_MPI_Aint*) {}
    void writeInput(std::string_view, OXM_MPI_Status_struct*) {}
    void writeInput(std::string_view, char*) {}
    void writeInput(std::string_view, char***) {}

    /// Handles that a call takes by address when they come first, and changes.
    static bool isHandleName(std::string_view name) {
        constexpr std::string_view NAMES[] = {"request", "comm",   "group", "datatype",
                                              "op",      "window", "file",  "info"};
        return std::find(std::begin(NAMES), std::end(NAMES), name) != std::end(NAMES);
    }

    void writeOutput(std::string_view name, int* value) {
        if (!value || name == "requests")
            return;
        _line.add(" %.*s=%d", static_cast<int>(name.size()), name.data(), *value);
        if (name == "flag")
            _isStatusSet = *value != 0;
    }
    void writeOutput(std::string_view name, OXM_MPI_Aint* value) {
        if (value)
            _line.add(" %.*s=%lld", static_cast<int>(name.size()), name.data(), *value);
    }
    void writeOutput(std::string_view name, OXM_MPI_Status_struct* value) {
        if (value && name != "statuses" && _isStatusSet)
            _line.add(" %.*s={source=%d tag=%d error=%d}", static_cast<int>(name.size()), name.data(),
                      value->source, value->tag, value->error);
    }
    void writeOutput(std::string_view name, char* value) {
        // An info value is set only if its key is there: its text can't be told here.
        if (value && name != "value")
            _line.add(" %.*s=\"%.80s\"", static_cast<int>(name.size()), name.data(), value);
    }
    template <class T>
    void writeOutput(std::string_view, const T&) {}

    TraceLine& _line;
    NameWalker _inputs;
    NameWalker _outputs;
    int _position = 0;
    int _latestInt = 0;
    bool _isStatusSet = true; ///< a flag stands before the status that depends on it
};

template <class... Arguments>
struct TracedCall {
    const char* name;
    const char* argumentNames;
    int (*function)(Arguments...);

    int operator()(Arguments... arguments) const {
        using Clock = std::chrono::steady_clock;
        TraceLine line;
        if (const int rank = tracedRank; rank >= 0)
            line.add("MPI rank %d: ", rank);
        else
            line.add("MPI: ");
        line.add("%s(", name);
        ArgumentWriter writer(line, argumentNames);
        (writer.input(arguments), ...);
        if (std::string_view(name) == "Abort")
            TraceLine(line).write(); // there will be no time after it
        const Clock::time_point start = Clock::now();
        const int result = function(arguments...);
        const std::chrono::duration<double, std::micro> elapsed = Clock::now() - start;
        line.add(") = %d in %.1f us", result, elapsed.count());
        if (result == OXM_MPI_SUCCESS)
            (writer.output(arguments), ...);
        line.write();
        return result;
    }
};

template <class... Arguments>
TracedCall<Arguments...> traced(const char* name, const char* argumentNames, int (*function)(Arguments...)) {
    return {name, argumentNames, function};
}

namespace Traced {
#define ORVEX_TRACED(name, parameters, arguments)                                                            \
    int name parameters {                                                                                    \
        return traced(#name, #arguments, MpiFunctionTable::get(tracedTarget.name)) arguments;                \
    }
ORVEX_MPI_START_FUNCTIONS(ORVEX_TRACED)
ORVEX_MPI_DRIVER_FUNCTIONS(ORVEX_TRACED)
ORVEX_MPI_RUNNING_FUNCTIONS(ORVEX_TRACED)
ORVEX_MPI_FILE_FUNCTIONS(ORVEX_TRACED)
#undef ORVEX_TRACED
} // namespace Traced

} // namespace

MpiDriverFunctions MpiTrace::getTraced(const MpiDriverFunctions& functions, int rank) {
    MpiFunctionTable::set(tracedTarget, functions);
    tracedRank = rank;
    MpiDriverFunctions result = functions;
#define ORVEX_USE_TRACED(name, parameters, arguments) result.name = &Traced::name;
    ORVEX_MPI_START_FUNCTIONS(ORVEX_USE_TRACED)
    ORVEX_MPI_DRIVER_FUNCTIONS(ORVEX_USE_TRACED)
    ORVEX_MPI_RUNNING_FUNCTIONS(ORVEX_USE_TRACED)
    ORVEX_MPI_FILE_FUNCTIONS(ORVEX_USE_TRACED)
#undef ORVEX_USE_TRACED
    return result;
}
