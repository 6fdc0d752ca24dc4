#include "platform/Log.h"

#include "platform/StringHelper.h"

#include <charconv>
#include <map>
#include <mutex>
#include <spdlog/logger.h>
#include <spdlog/sinks/basic_file_sink.h>
#include <spdlog/sinks/stdout_sinks.h>
#include <utility>

namespace OS {

namespace {

spdlog::level::level_enum toSpdlog(Log::Level level) {
    switch (level) {
    case Log::DEBUG_LEVEL:
        return spdlog::level::debug;
    case Log::INFO_LEVEL:
        return spdlog::level::info;
    case Log::WARNING_LEVEL:
        return spdlog::level::warn;
    case Log::ERROR_LEVEL:
        return spdlog::level::err;
    case Log::OFF:
        return spdlog::level::off;
    }
    return spdlog::level::off;
}

constexpr const char* LINE_PATTERN = "[%Y-%m-%d %H:%M:%S.%e] %v";

/// Channels and what they share. Never destroyed: what is destroyed last may still want to write a line.
struct Registry {
    std::mutex mutex;
    std::map<std::string, std::unique_ptr<Log>> channels;
    std::string processTag;
};

Registry& getRegistry() {
    static auto* registry = new Registry;
    return *registry;
}

/// Tells whether the calling thread is inside a listener, whose own lines would go round in a circle.
thread_local bool insideListener = false;

} // namespace

struct Log::Impl {
    explicit Impl(const std::string& name) : channel(name) { standardError->set_pattern(LINE_PATTERN); }

    const std::string channel;
    std::mutex mutex;
    std::shared_ptr<spdlog::sinks::sink> standardError = std::make_shared<spdlog::sinks::stderr_sink_mt>();
    std::shared_ptr<spdlog::sinks::sink> file;
    bool toStandardError = true;
    std::function<void(const Record&)> listener;
};

Log::Log(const std::string& channel) : _impl(std::make_unique<Impl>(channel)) {}

Log::~Log() = default;

Log& Log::instance(const std::string& channel) {
    Registry& registry = getRegistry();
    const std::lock_guard lock(registry.mutex);
    std::unique_ptr<Log>& log = registry.channels[channel];
    if (!log)
        log.reset(new Log(channel));
    return *log;
}

bool Log::setFile(const std::wstring& path) {
    std::shared_ptr<spdlog::sinks::sink> file;
    if (!path.empty()) {
        try {
            file = std::make_shared<spdlog::sinks::basic_file_sink_mt>(StringHelper::toBytes(path));
            file->set_pattern(LINE_PATTERN);
        } catch (const spdlog::spdlog_ex&) {
            return false;
        }
    }
    const std::lock_guard lock(_impl->mutex);
    _impl->file = std::move(file);
    return true;
}

void Log::setStandardError(bool on) {
    const std::lock_guard lock(_impl->mutex);
    _impl->toStandardError = on;
}

void Log::setProcessTag(const std::string& tag) {
    Registry& registry = getRegistry();
    const std::lock_guard lock(registry.mutex);
    registry.processTag = tag;
}

void Log::setListener(std::function<void(const Record&)> listener) {
    const std::lock_guard lock(_impl->mutex);
    _impl->listener = std::move(listener);
}

void Log::flush() {
    const std::lock_guard lock(_impl->mutex);
    for (const auto& sink : {_impl->standardError, _impl->file}) {
        if (sink)
            sink->flush();
    }
}

std::string Log::format(std::string_view text, const std::vector<std::string>& data) {
    std::string result;
    while (!text.empty()) {
        const std::size_t open = text.find('@');
        const std::size_t close = open == std::string_view::npos ? open : text.find('@', open + 1);
        if (close == std::string_view::npos)
            break;
        std::size_t index = 0;
        const char* end = text.data() + close;
        const auto [last, error] = std::from_chars(text.data() + open + 1, end, index);
        if (error == std::errc() && last == end && index < data.size()) {
            result.append(text.substr(0, open)).append(data[index]);
            text.remove_prefix(close + 1);
        } else {
            result.append(text.substr(0, close)); // the second @ may begin a place of its own
            text.remove_prefix(close);
        }
    }
    return result.append(text);
}

const char* Log::getLevelName(Level level) {
    switch (level) {
    case DEBUG_LEVEL:
        return "debug";
    case INFO_LEVEL:
        return "info";
    case WARNING_LEVEL:
        return "warning";
    case ERROR_LEVEL:
        return "error";
    case OFF:
        return "off";
    }
    return "unknown";
}

std::string Log::narrow(std::wstring_view text) {
    return StringHelper::toString(text);
}

void Log::write(Level level, const Context& context, std::string_view text,
                const std::vector<std::string>& data) {
    if (insideListener)
        return;
    std::string tag;
    {
        Registry& registry = getRegistry();
        const std::lock_guard lock(registry.mutex);
        if (!registry.processTag.empty())
            tag = "[" + registry.processTag + "] ";
    }
    const Record record{level, context.operation, context.line, format(text, data)};
    const std::string line = tag + "[" + _impl->channel + "] [" + getLevelName(level) + "] [" +
                             record.operation + ":" + std::to_string(record.line) + "] " + record.text;
    const spdlog::details::log_msg message(_impl->channel, toSpdlog(level), line);

    const std::lock_guard lock(_impl->mutex);
    try {
        if (_impl->toStandardError)
            _impl->standardError->log(message);
        if (_impl->file) {
            _impl->file->log(message);
            _impl->file->flush();
        }
    } catch (const spdlog::spdlog_ex&) {
        // A full disk or a closed stream: a line of diagnostics is never a reason to fail.
    }
    if (_impl->listener) {
        insideListener = true;
        _impl->listener(record);
        insideListener = false;
    }
}

} // namespace OS
