#include "platform/NetworkAddress.h"

#include "platform/Descriptor.h"
#include "platform/Io.h"

#include <algorithm>
#include <cerrno>
#include <ifaddrs.h>
#include <memory>
#include <net/if.h>
#include <netdb.h>
#include <poll.h>
#include <sys/socket.h>
#include <vector>

namespace {

using List = std::unique_ptr<addrinfo, void (*)(addrinfo*)>;

List resolve(const std::string& name, int flags) {
    addrinfo hints{};
    hints.ai_socktype = SOCK_DGRAM;
    hints.ai_flags = flags;
    addrinfo* list = nullptr;
    if (::getaddrinfo(name.c_str(), "9", &hints, &list) != 0)
        list = nullptr;
    return {list, ::freeaddrinfo};
}

socklen_t sizeOf(const sockaddr& address) {
    return address.sa_family == AF_INET ? sizeof(sockaddr_in) : sizeof(sockaddr_in6);
}

std::string toFigures(const sockaddr& address) {
    char text[NI_MAXHOST];
    if (::getnameinfo(&address, sizeOf(address), text, sizeof text, nullptr, 0, NI_NUMERICHOST) != 0)
        return {};
    return text;
}

/// Of the interfaces that are up and lead to other hosts, IPv4 first.
std::vector<std::string> listOutwardAddresses() {
    ifaddrs* first = nullptr;
    if (::getifaddrs(&first) != 0)
        return {};
    const std::unique_ptr<ifaddrs, void (*)(ifaddrs*)> owner(first, ::freeifaddrs);
    std::vector<std::string> addresses;
    for (const int family : {AF_INET, AF_INET6})
        for (const ifaddrs* entry = first; entry != nullptr; entry = entry->ifa_next) {
            const bool isOutward = (entry->ifa_flags & IFF_UP) != 0 && (entry->ifa_flags & IFF_LOOPBACK) == 0;
            if (isOutward && entry->ifa_addr != nullptr && entry->ifa_addr->sa_family == family)
                addresses.push_back(toFigures(*entry->ifa_addr));
        }
    return addresses;
}

} // namespace

std::string NetworkAddress::getOwn() {
    const std::vector<std::string> own = listOutwardAddresses();
    const List named = resolve(Platform::io().getHostName(), 0);
    for (const addrinfo* entry = named.get(); entry != nullptr; entry = entry->ai_next)
        if (std::string address = toFigures(*entry->ai_addr);
            std::find(own.begin(), own.end(), address) != own.end())
            return address;
    return own.empty() ? LOOPBACK : own.front();
}

std::string NetworkAddress::getOwnTowards(const std::string& peer) {
    const List target = resolve(peer, AI_NUMERICHOST);
    if (!target)
        return {};
    const Descriptor socket(::socket(target->ai_family, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    if (::connect(socket.get(), target->ai_addr, target->ai_addrlen) != 0)
        return {};
    sockaddr_storage own{};
    socklen_t size = sizeof own;
    if (::getsockname(socket.get(), reinterpret_cast<sockaddr*>(&own), &size) != 0)
        return {};
    return toFigures(reinterpret_cast<const sockaddr&>(own));
}

bool NetworkAddress::isReachable(const std::string& address, int port, double seconds) {
    addrinfo hints{};
    hints.ai_socktype = SOCK_STREAM;
    hints.ai_flags = AI_NUMERICHOST | AI_NUMERICSERV;
    addrinfo* list = nullptr;
    if (::getaddrinfo(address.c_str(), std::to_string(port).c_str(), &hints, &list) != 0)
        return false;
    const List target(list, ::freeaddrinfo);
    const Descriptor socket(::socket(target->ai_family, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    if (::connect(socket.get(), target->ai_addr, target->ai_addrlen) == 0)
        return true;
    if (errno != EINPROGRESS)
        return false;
    constexpr double MILLISECONDS = 1000.0;
    pollfd wait{socket.get(), POLLOUT, 0};
    if (::poll(&wait, 1, static_cast<int>(seconds * MILLISECONDS)) != 1)
        return false;
    int error = 0;
    socklen_t size = sizeof error;
    return ::getsockopt(socket.get(), SOL_SOCKET, SO_ERROR, &error, &size) == 0 && error == 0;
}
