#pragma once

#include "platform/PlatformExport.h"

#include <string>

/// The addresses by which the hosts of a job reach each other, in figures. Local, any thread.
class ORVEX_PLATFORM_EXPORT NetworkAddress {
public:
    static constexpr const char* LOOPBACK = "127.0.0.1";

    /// An address of this host that other hosts can reach: the one behind its own name, when one of its
    /// interfaces has it, else that of the first interface that is up. LOOPBACK when there is none.
    static std::string getOwn();
    /// The address of this host on the way to `peer`. Sends nothing. Empty when there is no way.
    static std::string getOwnTowards(const std::string& peer);
    /// Whether the host of `address`, in figures, takes a connection on `port` within `seconds`. A process
    /// that is stopped still does.
    static bool isReachable(const std::string& address, int port, double seconds);
};
