#include "SocketOptions.h"

#include <sys/time.h>

#include <cerrno>
#include <utility>

namespace zaqsockets {

namespace {

// With the kernel's default of 208 KiB a receiver loses datagrams from about 200 Mbit/s on.
constexpr int kReceiveBufferBytes = 8 << 20;
constexpr time_t kSendTimeout_s = 1;

#ifndef IPV6_MULTICAST_ALL
#define IPV6_MULTICAST_ALL 29  // missing in older headers
#endif

// Sets an option that both families have, by the name that it has in the address's family.
bool SetFor(const Address& address, const Descriptor& socket, int nameIPv4, int nameIPv6,
            int value) {
    return address.IsIPv6() ? Set(socket, IPPROTO_IPV6, nameIPv6, value)
                            : Set(socket, IPPROTO_IP, nameIPv4, value);
}

Descriptor OpenSocket(const Address& address, int flags) {
    Descriptor socket(::socket(address.Family(), SOCK_DGRAM | SOCK_CLOEXEC | flags, IPPROTO_UDP));
    // An IPv6 socket would otherwise take the IPv4 port, too (ipv6(7)).
    if (socket && address.IsIPv6() && !Set(socket, IPPROTO_IPV6, IPV6_V6ONLY, 1))
        return Descriptor();
    return socket;
}

// Linux otherwise delivers every group that any socket of the machine has joined to every socket
// that is bound to the port and not to another address (ip(7), IP_MULTICAST_ALL).
bool OwnGroupsOnly(const Descriptor& socket, const Address& address) {
    if (!address.IsIPv6())
        return Set(socket, IPPROTO_IP, IP_MULTICAST_ALL, 0);
    // Before Linux 4.20 there is no such option.
    return Set(socket, IPPROTO_IPV6, IPV6_MULTICAST_ALL, 0) || errno == ENOPROTOOPT;
}

// The TTL of sent multicast and its interface. By default it comes back to this machine, too.
bool SetMulticastOutput(const Descriptor& socket, const Address& local, Address& group, int ttl) {
    if (!group.IsIPv6()) {
        ip_mreqn interface {};
        interface.imr_address = local.IPv4();
        return (local.IsAny() || Set(socket, IPPROTO_IP, IP_MULTICAST_IF, interface)) &&
               Set(socket, IPPROTO_IP, IP_MULTICAST_TTL, ttl);
    }
    const uint32_t interface = GroupInterface(local, group, InterfaceList());
    if (interface == 0 && !local.IsAny())
        return false;
    if (group.IsZoneLocalGroup())
        group.SetZone(interface);
    return (interface == 0 ||
            Set(socket, IPPROTO_IPV6, IPV6_MULTICAST_IF, static_cast<int>(interface))) &&
           Set(socket, IPPROTO_IPV6, IPV6_MULTICAST_HOPS, ttl);
}

// DSCP are the upper six bits of the byte that the IP header has for it (RFC 2474).
bool SetDscp(const Descriptor& socket, const RemoteAddress& remote) {
    return remote.Dscp < 0 || SetFor(remote.Host, socket, IP_TOS, IPV6_TCLASS, remote.Dscp << 2);
}

// Bound to the port at the loopback address. No other socket of any address has the port then, nor
// can it be bound, as long as this one does not share it; groups do not stand in the way. Empty
// when the port is taken.
Descriptor HoldPort(const Address& any, uint32_t port) {
    Address loopback;
    loopback.Parse(any.IsIPv6() ? "::1" : "127.0.0.1");
    loopback.SetPort(port);
    Descriptor socket = OpenSocket(loopback, 0);
    // The loopback interface may be down.
    const bool bound =
        socket && SetFor(any, socket, IP_FREEBIND, IPV6_FREEBIND, 1) && Bind(socket, loopback);
    return bound ? std::move(socket) : Descriptor();
}

}  // namespace

void EnlargeReceiveBuffer(const Descriptor& socket) {
    if (!Set(socket, SOL_SOCKET, SO_RCVBUFFORCE, kReceiveBufferBytes))
        Set(socket, SOL_SOCKET, SO_RCVBUF, kReceiveBufferBytes);
}

Descriptor OpenReceiveSocket(const Address& address) {
    Descriptor socket = OpenSocket(address, SOCK_NONBLOCK);
    if (!socket || !OwnGroupsOnly(socket, address))
        return Descriptor();
    EnlargeReceiveBuffer(socket);
    return socket;
}

// A link-local address is bound together with its interface, which is found where it is not named.
bool Bind(const Descriptor& socket, const Address& address) {
    Address bound = address;
    if (bound.IsLinkLocal() && bound.Zone() == 0)
        bound.SetZone(InterfaceList().WithAddress(bound));
    return bind(socket.Number(), bound.Get(), bound.Size()) == 0;
}

uint32_t GroupInterface(const Address& local, const Address& group,
                        const InterfaceList& interfaces) {
    const uint32_t zone = group.Zone() != 0 ? group.Zone() : local.Zone();
    return zone != 0 ? zone : interfaces.WithAddress(local);
}

Descriptor OpenSendSocket(const Address& local, const RemoteAddress& remote, uint32_t port,
                          int ttl) {
    Address destination = remote.Host;
    destination.SetPort(port);
    Descriptor socket = OpenSocket(destination, 0);
    if (!socket || !SetDscp(socket, remote) ||
        (destination.IsMulticast() && !SetMulticastOutput(socket, local, destination, ttl)))
        return Descriptor();
    // A datagram above the path's MTU is fragmented. Otherwise the kernel refuses it, once a router
    // has reported a smaller MTU (ip(7), IP_MTU_DISCOVER).
    static_assert(IP_PMTUDISC_DONT == IPV6_PMTUDISC_DONT);
    const bool fragmentation =
        SetFor(destination, socket, IP_MTU_DISCOVER, IPV6_MTU_DISCOVER, IP_PMTUDISC_DONT);
    // A subnet's broadcast address is a destination like another.
    const bool broadcast = destination.IsIPv6() || Set(socket, SOL_SOCKET, SO_BROADCAST, 1);
    // A send queue that never moves again must not hold the sending thread for ever.
    const bool bounded = Set(socket, SOL_SOCKET, SO_SNDTIMEO, timeval{kSendTimeout_s, 0});
    if (!fragmentation || !broadcast || !bounded || (!local.IsAny() && !Bind(socket, local)) ||
        connect(socket.Number(), destination.Get(), destination.Size()) != 0)
        return Descriptor();
    return socket;
}

// With SO_REUSEADDR, another socket that has it, too, could bind the same address and port, and
// would silently get the datagrams. So a named address goes without. But the any-address collides
// with groups on the same port, which are no rivals: it is shared for earlier and later ones.
Descriptor OpenUnicastSocket(const Address& local, uint32_t port) {
    Descriptor socket = OpenReceiveSocket(local);
    Address bound = local;
    bound.SetPort(port);
    if (!socket)
        return Descriptor();
    if (!local.IsAny())
        return Bind(socket, bound) ? std::move(socket) : Descriptor();
    const Descriptor held = HoldPort(local, port);
    const bool shared = held && Set(held, SOL_SOCKET, SO_REUSEADDR, 1) &&
                        Set(socket, SOL_SOCKET, SO_REUSEADDR, 1) && Bind(socket, bound);
    return shared ? std::move(socket) : Descriptor();
}

}  // namespace zaqsockets
