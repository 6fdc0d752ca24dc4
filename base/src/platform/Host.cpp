#include "platform/Host.h"

#include "platform/Io.h"
#include "platform/StringHelper.h"

#include <algorithm>
#include <arpa/inet.h>
#include <cstring>
#include <ifaddrs.h>
#include <memory>
#include <netdb.h>
#include <netinet/in.h>
#include <set>
#include <sys/socket.h>

namespace OS::Io {

namespace {

/// The bytes of a network address, 4 or 16.
using Address = std::string;

Address toAddress(const sockaddr* address) {
    if (address == nullptr)
        return {};
    if (address->sa_family == AF_INET) {
        const auto* v4 = reinterpret_cast<const sockaddr_in*>(address);
        return {reinterpret_cast<const char*>(&v4->sin_addr), sizeof v4->sin_addr};
    }
    if (address->sa_family == AF_INET6) {
        const auto* v6 = reinterpret_cast<const sockaddr_in6*>(address);
        return {reinterpret_cast<const char*>(&v6->sin6_addr), sizeof v6->sin6_addr};
    }
    return {};
}

bool isLoopback(const Address& address) {
    if (address.size() == sizeof(in_addr))
        return address.front() == 127;
    return address.size() == sizeof(in6_addr) &&
           std::memcmp(address.data(), &in6addr_loopback, address.size()) == 0;
}

/// The addresses behind a name. @param numeric  without the name service: only for an address in figures
std::set<Address> resolve(const std::string& name, bool numeric) {
    addrinfo hints{};
    hints.ai_socktype = SOCK_STREAM;
    hints.ai_flags = numeric ? AI_NUMERICHOST : 0;
    addrinfo* list = nullptr;
    if (name.empty() || ::getaddrinfo(name.c_str(), nullptr, &hints, &list) != 0)
        return {};
    const std::unique_ptr<addrinfo, void (*)(addrinfo*)> owner(list, ::freeaddrinfo);
    std::set<Address> addresses;
    for (const addrinfo* entry = list; entry != nullptr; entry = entry->ai_next)
        addresses.insert(toAddress(entry->ai_addr));
    addresses.erase(Address());
    return addresses;
}

std::set<Address> getInterfaceAddresses() {
    ifaddrs* list = nullptr;
    if (::getifaddrs(&list) != 0)
        return {};
    const std::unique_ptr<ifaddrs, void (*)(ifaddrs*)> owner(list, ::freeifaddrs);
    std::set<Address> addresses;
    for (const ifaddrs* entry = list; entry != nullptr; entry = entry->ifa_next)
        addresses.insert(toAddress(entry->ifa_addr));
    addresses.erase(Address());
    return addresses;
}

bool intersect(const std::set<Address>& one, const std::set<Address>& other) {
    return std::any_of(one.begin(), one.end(), [&other](const Address& a) { return other.count(a) != 0; });
}

bool areLocal(const std::set<Address>& addresses) {
    return std::any_of(addresses.begin(), addresses.end(), isLoopback) ||
           intersect(addresses, getInterfaceAddresses());
}

/// Equal names, or a name and its fully qualified form. Both in lower case, neither an address in figures.
bool areNamesAlike(const std::string& one, const std::string& other) {
    const std::string& shorter = one.size() < other.size() ? one : other;
    const std::string& longer = one.size() < other.size() ? other : one;
    if (shorter.empty() || longer.empty())
        return one == other;
    return one == other || (shorter.find('.') == std::string::npos && longer.starts_with(shorter + "."));
}

std::string toComparable(const std::string& name) {
    std::string result = StringHelper::toLower(StringHelper::trim(name));
    if (result.size() > 1 && result.back() == '.')
        result.pop_back(); // the dot of a fully qualified name
    return result;
}

/// The facts of a host that are known without asking the name service.
struct Known {
    std::string name;
    std::set<Address> figures; ///< when the name is an address in figures
    bool local;
};

Known know(const std::string& rawName) {
    Known known{toComparable(rawName), {}, false};
    known.figures = resolve(known.name, true);
    if (known.figures.empty())
        known.local =
            !known.name.empty() && (known.name == "localhost" ||
                                    areNamesAlike(known.name, toComparable(Platform::io().getHostName())));
    else
        known.local = areLocal(known.figures);
    return known;
}

} // namespace

Host::Host() : _name(Platform::io().getHostName()) {}

Host::Host(const std::string& name) : _name(name) {}

bool Host::isLocal() const {
    const Known known = know(_name);
    return known.local || (known.figures.empty() && areLocal(resolve(known.name, false)));
}

bool Host::operator==(const Host& other) const {
    const Known one = know(_name);
    const Known two = know(other._name);
    if (one.name == two.name || (one.local && two.local))
        return true;
    if (one.name.empty() || two.name.empty())
        return false;
    if (one.figures.empty() && two.figures.empty() && areNamesAlike(one.name, two.name))
        return true;
    if (!one.figures.empty() && !two.figures.empty())
        return intersect(one.figures, two.figures);
    const auto first = one.figures.empty() ? resolve(one.name, false) : one.figures;
    const auto second = two.figures.empty() ? resolve(two.name, false) : two.figures;
    if (first.empty() || second.empty())
        return false;
    const bool firstLocal = one.local || areLocal(first);
    const bool secondLocal = two.local || areLocal(second);
    // Loopback addresses are everybody's: between two hosts they prove nothing.
    return firstLocal || secondLocal ? firstLocal && secondLocal : intersect(first, second);
}

} // namespace OS::Io
