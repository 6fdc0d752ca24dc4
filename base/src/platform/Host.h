#pragma once

#include "platform/PlatformExport.h"

#include <string>
#include <vector>

namespace OS::Io {

/// A host by a name that a person or a process gave it.
class ORVEX_PLATFORM_EXPORT Host {
public:
    /// This host.
    Host();
    explicit Host(const std::string& name);

    const std::string& getName() const { return _name; }
    /// Whether the name leads to this host: its own name, "localhost", or an address of one of its
    /// interfaces.
    bool isLocal() const;

    /// True when both names lead to the same host: equal names (ignoring case), a name and its fully
    /// qualified form, two names for this host, or a common network address. May ask the name service, so it
    /// may take as long as that does.
    bool operator==(const Host& other) const;
    bool operator!=(const Host& other) const { return !(*this == other); }

private:
    std::string _name;
};

} // namespace OS::Io
