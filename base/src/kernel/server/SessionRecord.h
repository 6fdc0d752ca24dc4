#pragma once

#include "kernel/KernelExport.h"

#include <optional>
#include <string>

class Properties;

/// The record of a running server for the clients of its own user: its place, and the key that opens it.
struct ORVEX_KERNEL_EXPORT SessionRecord {
    static constexpr unsigned PROTOCOL_VERSION = 1;
    static constexpr std::size_t MAX_TEXT_SIZE = 64 * 1024; ///< [bytes]

    std::string name;    ///< the session's, as people call it
    std::string host;    ///< where it runs
    std::string address; ///< to connect to: a name or an address
    unsigned port = 0;   ///< 0: it takes no connections
    int pid = 0;
    unsigned long long startStamp = 0;   ///< of the process, tells it from a later one with the same pid
    std::string boot;                    ///< which start of the host, empty when the system doesn't tell
    unsigned long long pidNamespace = 0; ///< which one `pid` belongs to, 0 when the system doesn't tell
    unsigned ranks = 1;
    double startTime = 0.0; ///< [s] since 1970
    std::string user;
    std::string product; ///< name and version
    unsigned protocol = PROTOCOL_VERSION;
    bool listed = true; ///< whether clients find it by themselves
    std::string key;    ///< 64 hexadecimal digits
    std::wstring path;  ///< of the file it was read from or written to; not part of the text

    /// The text of the record, of its file.
    std::string toText() const;
    /// None when `text` isn't a record.
    static std::optional<SessionRecord> fromText(const std::string& text);
    /// The fields that anybody may know: all except the key and the private ones.
    Properties describe() const;

    /// Whether this process can tell by `pid` if the server lives: both are on one boot of one host and in
    /// one namespace of pids. Of a server that can't be seen nothing is known, also when the host's name is
    /// ours.
    bool isVisible() const;
    /// Whether the server can be seen and lives.
    bool isAliveHere() const;
    /// Whether the server can be seen, or its host has our host's name.
    bool isOnThisHost() const;
    /// Whether it takes connections from its own host only.
    bool isLoopback() const;
};
