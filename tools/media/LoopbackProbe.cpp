#include "media/LoopbackProbe.h"

#include <arpa/inet.h>
#include <net/if.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstring>

#include "base/FileDescriptor.h"

namespace {

struct SocketAddress {
    sockaddr_storage storage{};
    socklen_t length = 0;

    sockaddr* get() { return reinterpret_cast<sockaddr*>(&storage); }
    const sockaddr* get() const { return reinterpret_cast<const sockaddr*>(&storage); }
};

SocketAddress makeAddress(bool ipv6, const char* host, uint16_t port) {
    SocketAddress address;
    if (ipv6) {
        sockaddr_in6 v6{};
        v6.sin6_family = AF_INET6;
        v6.sin6_port = htons(port);
        inet_pton(AF_INET6, host, &v6.sin6_addr);
        std::memcpy(&address.storage, &v6, sizeof v6);
        address.length = sizeof v6;
    } else {
        sockaddr_in v4{};
        v4.sin_family = AF_INET;
        v4.sin_port = htons(port);
        inet_pton(AF_INET, host, &v4.sin_addr);
        std::memcpy(&address.storage, &v4, sizeof v4);
        address.length = sizeof v4;
    }
    return address;
}

int openSocket(bool ipv6) {
    return socket(ipv6 ? AF_INET6 : AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
}

// Makes the socket send to groups over loopback, and only there.
bool sendOverLoopback(int descriptor, bool ipv6) {
    if (ipv6) {
        const unsigned int interface = if_nametoindex("lo");
        return setsockopt(descriptor, IPPROTO_IPV6, IPV6_MULTICAST_IF, &interface,
                          sizeof interface) == 0;
    }
    in_addr interface {};
    interface.s_addr = htonl(INADDR_LOOPBACK);
    return setsockopt(descriptor, IPPROTO_IP, IP_MULTICAST_IF, &interface, sizeof interface) == 0;
}

bool joinOnLoopback(int descriptor, const StreamUrl& url) {
    if (url.ipv6) {
        ipv6_mreq request{};
        inet_pton(AF_INET6, url.host.c_str(), &request.ipv6mr_multiaddr);
        request.ipv6mr_interface = if_nametoindex("lo");
        return setsockopt(descriptor, IPPROTO_IPV6, IPV6_JOIN_GROUP, &request, sizeof request) == 0;
    }
    ip_mreq request{};
    inet_pton(AF_INET, url.host.c_str(), &request.imr_multiaddr);
    request.imr_interface.s_addr = htonl(INADDR_LOOPBACK);
    return setsockopt(descriptor, IPPROTO_IP, IP_ADD_MEMBERSHIP, &request, sizeof request) == 0;
}

bool isFree(bool ipv6, uint16_t port) {
    const FileDescriptor probe(openSocket(ipv6));
    if (probe.get() < 0)
        return ipv6;  // without IPv6 there is nobody to collide with
    const int only = 1;
    if (ipv6)
        setsockopt(probe.get(), IPPROTO_IPV6, IPV6_V6ONLY, &only, sizeof only);
    const SocketAddress any = makeAddress(ipv6, ipv6 ? "::" : "0.0.0.0", port);
    return bind(probe.get(), any.get(), any.length) == 0;
}

}  // namespace

bool loopbackCarries(const StreamUrl& url) {
    constexpr int kPatience_ms = 500;
    const FileDescriptor receiver(openSocket(url.ipv6));
    const FileDescriptor sender(openSocket(url.ipv6));
    if (receiver.get() < 0 || sender.get() < 0)
        return false;
    SocketAddress bound = makeAddress(url.ipv6, url.host.c_str(), 0);
    if (bind(receiver.get(), bound.get(), bound.length) != 0 ||
        getsockname(receiver.get(), bound.get(), &bound.length) != 0)
        return false;
    if (url.multicast &&
        (!joinOnLoopback(receiver.get(), url) || !sendOverLoopback(sender.get(), url.ipv6)))
        return false;
    const char probe = 'Q';
    if (sendto(sender.get(), &probe, sizeof probe, 0, bound.get(), bound.length) !=
        static_cast<ssize_t>(sizeof probe))
        return false;
    pollfd readable{receiver.get(), POLLIN, 0};
    return poll(&readable, 1, kPatience_ms) == 1;
}

std::optional<uint16_t> findFreePorts(uint16_t count) {
    // Below the range from which the system gives out ports. Two runs at the same time begin at
    // different places.
    constexpr uint16_t kFirst = 20000;
    constexpr uint16_t kRuns = 500;
    const auto offset = static_cast<uint16_t>(getpid() % kRuns);
    for (uint16_t run = 0; run < kRuns; ++run) {
        const auto first = static_cast<uint16_t>(kFirst + (run + offset) % kRuns * count);
        uint16_t used = 0;
        while (used < count && isFree(false, static_cast<uint16_t>(first + used)) &&
               isFree(true, static_cast<uint16_t>(first + used)))
            ++used;
        if (used == count)
            return first;
    }
    return std::nullopt;
}
