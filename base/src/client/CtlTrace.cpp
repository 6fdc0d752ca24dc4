#include "client/CtlTrace.h"

#include "kernel/Error.h"
#include "kernel/server/RpcMessage.h"
#include "platform/Base64Encoder.h"
#include "platform/Io.h"
#include "platform/Process.h"
#include "platform/Signals.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <optional>
#include <utility>

namespace {

constexpr std::chrono::milliseconds CALL_TIME{20000}; ///< more than the server gives the ranks

/// While it lives, Ctrl-C ends a wait with RpcClientError::GIVEN_UP.
class Interruptible {
public:
    explicit Interruptible(RpcClient& client) : _client(client) {
        _client.setInterruptCallback([] { return false; });
        Platform::signals().watch({Platform::Signals::INTERRUPT},
                                  [&client](int, int) { client.interrupt(); });
    }
    Interruptible(const Interruptible&) = delete;
    Interruptible& operator=(const Interruptible&) = delete;
    ~Interruptible() {
        Platform::signals().unwatch();
        _client.setInterruptCallback(nullptr);
    }

private:
    RpcClient& _client;
};

/// A file that has its name only when it is whole. It is made at once, so that a folder that can't be written
/// to is told before the work.
class NewFile {
public:
    explicit NewFile(const std::string& path) : _path(path) {
        const std::filesystem::path folder = _path.parent_path();
        _temporary = folder / ("." + _path.filename().string() + "." +
                               std::to_string(Platform::process().getPid()) + ".tmp");
        if (std::error_code none; std::filesystem::is_directory(_path, none) || _path.filename().empty())
            throw UsageError(path + " is a folder");
        _stream.open(_temporary, std::ios::binary | std::ios::trunc);
        check();
    }
    NewFile(const NewFile&) = delete;
    NewFile& operator=(const NewFile&) = delete;
    ~NewFile() {
        if (_isDone)
            return;
        _stream.close();
        std::error_code ignored;
        std::filesystem::remove(_temporary, ignored);
    }

    std::ostream& getStream() { return _stream; }
    void finish() {
        _stream.close();
        check();
        std::error_code failure;
        std::filesystem::rename(_temporary, _path, failure);
        if (failure)
            fail(failure.message());
        _isDone = true;
    }

private:
    void check() const {
        const int number = errno;
        if (!_stream)
            fail(number != 0 ? std::error_code(number, std::generic_category()).message()
                             : "it can't be written");
    }
    [[noreturn]] void fail(const std::string& reason) const {
        throw OutputError("The trace can't be written to " + _path.string() + ": " + reason);
    }

    std::filesystem::path _path;
    std::filesystem::path _temporary;
    std::ofstream _stream;
    bool _isDone = false;
};

std::optional<double> toSeconds(const std::string& text) {
    double number = 0.0;
    const auto [end, failed] = std::from_chars(text.data(), text.data() + text.size(), number);
    if (failed != std::errc() || end != text.data() + text.size() || !(number > 0.0) ||
        number > TraceLayout::MAX_SECONDS)
        return std::nullopt;
    return number;
}

TraceData::Rank toRank(const Properties& told) {
    TraceData::Rank rank;
    rank.rank = told.getUnsignedInt("rank");
    rank.host = told.getString("host");
    rank.pid = told.getUnsignedInt("pid");
    rank.answered = told.hasName("records");
    if (!rank.answered)
        return rank;
    rank.begin = told.getUnsignedLong("begin");
    rank.end = told.getUnsignedLong("end");
    rank.epoch = told.getUnsignedInt("epoch");
    rank.ticksPerSecond = std::max(told.getReal("ticksPerSecond"), 1.0);
    rank.dropped = told.getUnsignedLong("dropped");
    std::vector<Properties> clock;
    if (told.hasName("clock"))
        told.get("clock", clock);
    for (const Properties& point : clock)
        rank.clock.push_back({point.getUnsignedLong("own"), point.getUnsignedLong("master"),
                              point.getUnsignedLong("tolerance")});
    return rank;
}

} // namespace

Properties CtlTrace::run(const std::vector<CommandWords::Word>& arguments) {
    parse(arguments);
    NewFile file(_path);
    const Interruptible interruptible(_session.getClient());
    begin();
    try {
        wait();
        end();
        const std::size_t limit = TraceFile::getLimit(_counts);
        for (std::size_t rank = 0; rank < _data.ranks.size(); ++rank)
            if (_data.ranks[rank].answered)
                fetch(_data.ranks[rank], std::min(_counts[rank], limit));
    } catch (...) {
        release();
        throw;
    }
    release();
    const TraceFile::Summary summary = TraceFile(_data, file.getStream()).write();
    file.finish();
    return summarise(summary);
}

void CtlTrace::parse(const std::vector<CommandWords::Word>& arguments) {
    for (std::size_t i = 0; i < arguments.size(); i += 2) {
        const std::string value = i + 1 < arguments.size() ? arguments[i + 1].text : std::string();
        if (arguments[i].text == "--output" && !value.empty()) {
            _path = value;
        } else if (arguments[i].text == "--seconds" && toSeconds(value)) {
            _seconds = *toSeconds(value);
        } else {
            throw UsageError("trace takes --seconds and a number up to " +
                             std::to_string(std::lround(TraceLayout::MAX_SECONDS)) +
                             ", and --output and a file");
        }
    }
}

/// @throw Refusal
Properties CtlTrace::call(const Properties& request) {
    RpcClient::Reply reply =
        _session.getClient().call("server.trace", request.toString(), _options.timeout.value_or(CALL_TIME));
    if (reply.failed && reply.code == RpcFault::METHOD_NOT_FOUND)
        reply.message = "This server can't be traced: it has no error channel, as with -nothreads";
    if (reply.failed)
        throw Refusal(reply);
    return Properties(std::string_view(reply.result));
}

Properties CtlTrace::ask(const std::string& action) {
    Properties request;
    request.set("action", action);
    request.set("trace", _trace);
    return call(request);
}

void CtlTrace::begin() {
    Properties request;
    request.set("action", "begin");
    request.set("seconds", _seconds);
    request.set("client", "orvexctl, process " + std::to_string(Platform::process().getPid()) + " on " +
                              Platform::io().getHostName());
    const Properties answer = call(request);
    _trace = answer.getUnsignedInt("trace");
    std::vector<unsigned> silent;
    answer.get("silent", silent);
    char seconds[32];
    std::snprintf(seconds, sizeof seconds, "%g", _seconds);
    if (!_options.quiet)
        _console.tell(std::string("[The trace has begun and lasts ") + seconds + " s. Ctrl-C ends it early]");
    if (!silent.empty())
        _console.tell("[" + std::to_string(silent.size()) + " of " +
                      std::to_string(answer.getUnsignedInt("ranks")) + " ranks don't answer]");
}

void CtlTrace::wait() {
    using Clock = std::chrono::steady_clock;
    const auto end =
        Clock::now() + std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(_seconds));
    try {
        const auto left = std::chrono::ceil<std::chrono::milliseconds>(end - Clock::now());
        if (_session.getClient().waitForEnd(left))
            throw RpcClientError(RpcClientError::LOST, "The server ended while it was traced");
    } catch (const RpcClientError& error) {
        if (error.getTrouble() != RpcClientError::GIVEN_UP)
            throw;
        _console.tell("[The trace ends. Ctrl-C again leaves without a file]");
    }
}

void CtlTrace::end() {
    const Properties answer = ask("end");
    if (answer.getUnsignedInt("recordSize") != sizeof(TraceLayout::Record))
        throw RpcClientError(RpcClientError::REFUSED, "The server is of another version: its records differ");
    _data.product = answer.getString("product");
    _data.session = _session.getRecord().name;
    std::vector<Properties> ranks;
    answer.get("ranks", ranks);
    for (const Properties& told : ranks) {
        _data.ranks.push_back(toRank(told));
        _counts.push_back(told.hasName("records") ? told.getUnsignedLong("records") : 0);
    }
}

/// All names and the first `count` records. The rest counts as dropped.
void CtlTrace::fetch(TraceData::Rank& rank, std::size_t count) {
    _console.showProgress("[Rank " + std::to_string(rank.rank) + " of " + std::to_string(_data.ranks.size()) +
                          "]");
    const std::size_t all = _counts[rank.rank];
    try {
        while (fetchPiece(rank, count)) {
        }
    } catch (const Refusal& refusal) {
        _console.tell(std::string("[") + refusal.what() + "]");
    }
    rank.dropped += all - std::min(all, rank.records.size());
}

/// @return whether there may be more
bool CtlTrace::fetchPiece(TraceData::Rank& rank, std::size_t count) {
    Properties request;
    request.set("action", "fetch");
    request.set("trace", _trace);
    request.set("rank", rank.rank);
    request.set("from", static_cast<unsigned>(rank.records.size()));
    request.set("count", static_cast<unsigned>(
                             std::min<std::size_t>(count - rank.records.size(), TraceLayout::MAX_PIECE)));
    request.set("namesFrom", static_cast<unsigned>(rank.names.size()));
    const Properties piece = call(request);
    std::vector<std::string> names;
    piece.get("names", names);
    rank.names.insert(rank.names.end(), names.begin(), names.end());
    const std::string bytes = Base64Encoder::decodeBytes(piece.getString("records")).value_or(std::string());
    const std::size_t number =
        std::min(bytes.size() / sizeof(TraceLayout::Record), count - rank.records.size());
    const std::size_t before = rank.records.size();
    rank.records.resize(before + number);
    std::memcpy(rank.records.data() + before, bytes.data(), number * sizeof(TraceLayout::Record));
    return (number != 0 && rank.records.size() < count) ||
           (!names.empty() && rank.names.size() < TraceLayout::MAX_NAMES);
}

/// The next client needn't wait. One that can't be told finds out by itself.
void CtlTrace::release() noexcept {
    try {
        if (_session.getClient().isConnected())
            static_cast<void>(ask("release"));
    } catch (const std::exception&) {
        return;
    }
}

Properties CtlTrace::summarise(const TraceFile::Summary& summary) const {
    Properties answer;
    answer.set("file", _path);
    answer.set("seconds", std::round(summary.seconds * 1e3) * 1e-3);
    answer.set("ranks", _data.ranks.size() - summary.silent.size());
    answer.set("events", summary.events);
    if (!summary.silent.empty())
        answer.set("silentRanks", summary.silent);
    if (summary.dropped != 0) {
        answer.set("dropped", summary.dropped);
        answer.set("droppedFrom", summary.droppedFrom);
    }
    if (summary.tolerance > 0.0)
        answer.set("toleranceMicroseconds", std::round(summary.tolerance * 1e9) * 1e-3);
    answer.set("violations", summary.violations);
    if (!summary.unknownClocks.empty())
        answer.set("hostsWithUnknownClock", summary.unknownClocks);
    return answer;
}
