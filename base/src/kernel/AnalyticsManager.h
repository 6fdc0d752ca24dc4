#pragma once

#include "kernel/KernelExport.h"

#include <cstddef>
#include <string>

namespace Analytics {

class Event;

/// Writes events to the record: one JSON object a line, the oldest dropped when the file grows beyond its
/// bound. One thread at a time. Two processes that write at the same moment may lose one of their events.
class ORVEX_KERNEL_EXPORT Manager {
public:
    static constexpr std::size_t MAX_RECORD_SIZE = std::size_t(1) << 18; ///< [bytes]

    /// @param path  of the record; empty: this manager isn't initialised and drops all events
    Manager(std::string productKey, std::string releaseNumber, bool developmentVersion, std::wstring path);
    Manager(const Manager&) = delete;
    Manager& operator=(const Manager&) = delete;
    ~Manager();

    bool isInitialized() const { return !_path.empty(); }
    /// Adds the event to the record. A record that can't be written is logged once and ends the recording.
    void logEvent(Event& event);
    const std::wstring& getPath() const { return _path; }

private:
    std::string _productKey;
    std::string _releaseNumber;
    bool _developmentVersion;
    std::wstring _path;
};

} // namespace Analytics
