#pragma once

#include "platform/Log.h"

#include <gtest/gtest.h>

#include <mutex>
#include <string>

/// Collects the messages to the channel "Default", a line each: "warning Class::operation: text".
class LogLines {
public:
    explicit LogLines(OS::Log::Level level = OS::Log::WARNING_LEVEL) : _before(_log.getLevel()) {
        _log.setLevel(level);
        _log.setStandardError(false);
        _log.setListener([this](const OS::Log::Record& record) {
            EXPECT_GT(record.line, 0);
            const std::lock_guard lock(_mutex);
            _text +=
                OS::Log::getLevelName(record.level) + (' ' + record.operation) + ": " + record.text + '\n';
        });
    }
    ~LogLines() {
        _log.setListener({});
        _log.setStandardError(true);
        _log.setLevel(_before);
    }
    LogLines(const LogLines&) = delete;
    LogLines& operator=(const LogLines&) = delete;

    std::string text() const {
        const std::lock_guard lock(_mutex);
        return _text;
    }

private:
    OS::Log& _log = OS::Log::instance("Default");
    const OS::Log::Level _before;
    mutable std::mutex _mutex;
    std::string _text;
};
