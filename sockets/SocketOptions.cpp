#include "SocketOptions.h"

#include <ifaddrs.h>
#include <net/if.h>
#include <netinet/udp.h>
#include <sys/time.h>

#include <cerrno>
#include <cstring>
#include <memory>

namespace zaqsockets {

namespace {

// At the kernel's default of 208 KiB a receiver loses datagrams from about 200 Mbit/s on.
constexpr int kReceiveBufferBytes = 8 << 20;
constexpr time_t kSendTimeout_s = 1;

#ifndef IPV6_MULTICAST_ALL
#define IPV6_MULTICAST_ALL 29  // since Linux 4.20; missing in older headers
#endif

template <typename Value>
bool Set(const Descriptor& socket, int level, int name, const Value& value) {
    return setsockopt(socket.Number(), level, name, &value, sizeof(value)) == 0;
}

Descriptor OpenSocket(const Address& address, int flags) {
    Descriptor socket(::socket(address.Family(), SOCK_DGRAM | SOCK_CLOEXEC | flags, IPPROTO_UDP));
    // An IPv6 socket would otherwise take the IPv4 port, too (ipv6(7)).
    if (socket && address.IsIPv6() && !Set(socket, IPPROTO_IPV6, IPV6_V6ONLY, 1))
        return Descriptor();
    return socket;
}

using Interfaces = std::unique_ptr<ifaddrs, decltype(&freeifaddrs)>;

Interfaces ListInterfaces() {
    ifaddrs* list = nullptr;
    if (getifaddrs(&list) != 0)
        list = nullptr;
    return {list, &freeifaddrs};
}

// The interface that has the address; 0 when none has.
uint32_t InterfaceOf(const Address& address) {
    const Interfaces list = ListInterfaces();
    for (const ifaddrs* entry = list.get(); entry != nullptr; entry = entry->ifa_next) {
        if (entry->ifa_addr != nullptr && address.IsSameHost(*entry->ifa_addr))
            return if_nametoindex(entry->ifa_name);
    }
    return 0;
}

// A link-local address is bound together with its interface, which is found where it is not named.
bool Bind(const Descriptor& socket, Address address) {
    if (address.IsLinkLocal() && address.Zone() == 0)
        address.SetZone(InterfaceOf(address));
    return bind(socket.Number(), address.Get(), address.Size()) == 0;
}

// The interface on which an IPv6 group is meant; 0 = the system's choice by its routes. False when
// the local address belongs to no interface.
bool GroupInterface(const Address& local, const Address& group, uint32_t& interface) {
    interface = group.Zone() != 0 ? group.Zone() : local.Zone();
    if (interface != 0 || local.IsAny())
        return true;
    interface = InterfaceOf(local);
    return interface != 0;
}

bool Join4(const Descriptor& socket, const Address& group, const in_addr& local,
           uint32_t interface) {
    ip_mreqn membership{};
    membership.imr_multiaddr = group.IPv4();
    membership.imr_address = local;
    membership.imr_ifindex = static_cast<int>(interface);
    return Set(socket, IPPROTO_IP, IP_ADD_MEMBERSHIP, membership);
}

bool Join6(const Descriptor& socket, const Address& group, uint32_t interface) {
    ipv6_mreq membership{};
    membership.ipv6mr_multiaddr = group.IPv6();
    membership.ipv6mr_interface = interface;
    return Set(socket, IPPROTO_IPV6, IPV6_JOIN_GROUP, membership);
}

// True when at least one interface was joined that was not before. `full` is set when a socket can not
// have more memberships.
bool JoinEverywhere(const Descriptor& socket, const Address& group, bool& full) {
    constexpr unsigned int kWanted = IFF_UP | IFF_MULTICAST;
    bool joined = false;
    const Interfaces list = ListInterfaces();
    for (const ifaddrs* entry = list.get(); entry != nullptr; entry = entry->ifa_next) {
        // An interface stands here once for itself, and once for each of its addresses.
        const bool itself = entry->ifa_addr == nullptr || entry->ifa_addr->sa_family == AF_PACKET;
        if (!itself || (entry->ifa_flags & kWanted) != kWanted)
            continue;
        const uint32_t interface = if_nametoindex(entry->ifa_name);
        if (group.IsIPv6() ? Join6(socket, group, interface)
                           : Join4(socket, group, in_addr{}, interface))
            joined = true;
        else if (errno == ENOBUFS)
            full = true;
    }
    return joined;
}

bool IsMember(const Descriptor& socket, const Address& group, uint32_t interface) {
    // Every membership has a filter of sources, which can be read (RFC 3678, 5.2.2).
    uint32_t mode;
    uint32_t sources = 0;
    return getsourcefilter(socket.Number(), interface, group.Get(), group.Size(), &mode, &sources,
                           nullptr) == 0;
}

using InterfaceNames = std::unique_ptr<struct if_nameindex, decltype(&if_freenameindex)>;

InterfaceNames ListNames() {
    return {::if_nameindex(), &if_freenameindex};
}

// On an interface that exists.
bool IsMemberAnywhere(const Descriptor& socket, const Address& group) {
    const InterfaceNames list = ListNames();
    for (const auto* entry = list.get(); entry != nullptr && entry->if_index != 0; ++entry)
        if (IsMember(socket, group, entry->if_index))
            return true;
    return false;
}

// The interface on which the kernel joins the group now, where its number is not given: for IPv4 the one
// that has the local address. Who has the source address of a route may be another one. 0 when there is
// none.
uint32_t ChoiceOfSystem(const Address& local, const Address& group) {
    const Descriptor probe = OpenSocket(group, 0);
    if (!probe || !(group.IsIPv6() ? Join6(probe, group, 0) : Join4(probe, group, local.IPv4(), 0)))
        return 0;
    const InterfaceNames list = ListNames();
    for (const auto* entry = list.get(); entry != nullptr && entry->if_index != 0; ++entry)
        if (IsMember(probe, group, entry->if_index))
            return entry->if_index;
    return 0;
}

// Linux otherwise delivers every group that any socket of the machine has joined to every socket
// that is bound to the port and not to another address (ip(7), IP_MULTICAST_ALL).
bool OwnGroupsOnly(const Descriptor& socket, const Address& address) {
    return address.IsIPv6() ? Set(socket, IPPROTO_IPV6, IPV6_MULTICAST_ALL, 0)
                            : Set(socket, IPPROTO_IP, IP_MULTICAST_ALL, 0);
}

// The largest buffer that can be had: with CAP_NET_ADMIN as asked for, else cut by the system to
// net.core.rmem_max. A socket with less is still a socket.
void EnlargeReceiveBuffer(const Descriptor& socket) {
    if (!Set(socket, SOL_SOCKET, SO_RCVBUFFORCE, kReceiveBufferBytes))
        Set(socket, SOL_SOCKET, SO_RCVBUF, kReceiveBufferBytes);
}

// Lets the kernel hand over a train of datagrams in one message (udp(7)). Where it does not know the
// option, every message is one datagram.
void AcceptTrains(const Descriptor& socket) {
    Set(socket, SOL_UDP, UDP_GRO, 1);
}

// Interface, TTL and loopback of sent multicast.
bool SetMulticastOutput(const Descriptor& socket, const Address& local, Address& group, int ttl) {
    if (!group.IsIPv6()) {
        ip_mreqn interface {};
        interface.imr_address = local.IPv4();
        return (local.IsAny() || Set(socket, IPPROTO_IP, IP_MULTICAST_IF, interface)) &&
               Set(socket, IPPROTO_IP, IP_MULTICAST_TTL, ttl) &&
               Set(socket, IPPROTO_IP, IP_MULTICAST_LOOP, 1);
    }
    uint32_t interface;
    if (!GroupInterface(local, group, interface))
        return false;
    if (group.IsZoneLocalGroup())
        group.SetZone(interface);
    return (interface == 0 ||
            Set(socket, IPPROTO_IPV6, IPV6_MULTICAST_IF, static_cast<int>(interface))) &&
           Set(socket, IPPROTO_IPV6, IPV6_MULTICAST_HOPS, ttl) &&
           Set(socket, IPPROTO_IPV6, IPV6_MULTICAST_LOOP, 1);
}

// Does a unicast socket have the port already, on any of this machine's addresses? Sockets bound to a
// group do not stand in the way of those.
bool HasUnicastListener(const Address& any) {
    const Interfaces list = ListInterfaces();
    for (const ifaddrs* entry = list.get(); entry != nullptr; entry = entry->ifa_next) {
        Address own;
        if (entry->ifa_addr == nullptr || !own.Assign(*entry->ifa_addr, any.Family()))
            continue;
        own.SetPort(any.Port());
        const Descriptor probe = OpenSocket(own, 0);
        if (!probe || (!Bind(probe, own) && errno == EADDRINUSE))
            return true;
    }
    return list == nullptr;
}

// Two unicast sockets on one address and port would, with SO_REUSEADDR, silently take the datagrams
// from each other; so the first bind goes without. But the any-address also collides with groups on
// the same port, which are no rivals: then, and for groups that come later, the port is shared.
bool BindUnicast(const Descriptor& socket, const Address& local) {
    if (!Bind(socket, local)) {
        if (errno != EADDRINUSE || !local.IsAny() || HasUnicastListener(local) ||
            !Set(socket, SOL_SOCKET, SO_REUSEADDR, 1) || !Bind(socket, local))
            return false;
    }
    return Set(socket, SOL_SOCKET, SO_REUSEADDR, 1);
}

}  // namespace

Descriptor OpenSendSocket(const Address& local, const Address& remote, int ttl) {
    Descriptor socket = OpenSocket(remote, 0);
    Address destination = remote;
    if (!socket || (remote.IsMulticast() && !SetMulticastOutput(socket, local, destination, ttl)))
        return Descriptor();
    // A datagram above the path's MTU is fragmented. Otherwise the kernel refuses it, once a router
    // has reported a smaller MTU (ip(7), IP_MTU_DISCOVER).
    const bool fragmentation =
        remote.IsIPv6() ? Set(socket, IPPROTO_IPV6, IPV6_MTU_DISCOVER, IPV6_PMTUDISC_DONT)
                        : Set(socket, IPPROTO_IP, IP_MTU_DISCOVER, IP_PMTUDISC_DONT);
    // A subnet's broadcast address is a destination like another.
    const bool broadcast = remote.IsIPv6() || Set(socket, SOL_SOCKET, SO_BROADCAST, 1);
    // A send queue that never moves again must not hold the sending thread for ever.
    const bool bounded = Set(socket, SOL_SOCKET, SO_SNDTIMEO, timeval{kSendTimeout_s, 0});
    if (!fragmentation || !broadcast || !bounded || (!local.IsAny() && !Bind(socket, local)) ||
        connect(socket.Number(), destination.Get(), destination.Size()) != 0)
        return Descriptor();
    return socket;
}

Descriptor OpenGroupSocket(const Address& local, const Address& group, bool everywhere) {
    Descriptor socket = OpenSocket(group, SOCK_NONBLOCK);
    Address bound = group;
    uint32_t interface = 0;
    if (!socket || (group.IsIPv6() && !GroupInterface(local, group, interface)))
        return Descriptor();
    if (group.IsZoneLocalGroup()) {
        bound.SetZone(interface);
        everywhere = false;  // such a group is another one on every interface
    }
    EnlargeReceiveBuffer(socket);
    AcceptTrains(socket);
    // Bound to the group itself, so that the port's other groups and its unicast stay out.
    if (!Set(socket, SOL_SOCKET, SO_REUSEADDR, 1) || !OwnGroupsOnly(socket, group) ||
        !Bind(socket, bound))
        return Descriptor();
    bool full = false;
    if (everywhere)
        return JoinEverywhere(socket, group, full) ? std::move(socket) : Descriptor();
    if (!group.IsIPv6())
        return Join4(socket, group, local.IPv4(), 0) ? std::move(socket) : Descriptor();
    // IPv6 membership does not look at the interface by which a datagram came (unlike IPv4, where
    // it does): a group that another socket joined elsewhere would come in here, too.
    if (interface != 0)
        Set(socket, SOL_SOCKET, SO_BINDTOIFINDEX, static_cast<int>(interface));
    return Join6(socket, group, interface) ? std::move(socket) : Descriptor();
}

// An interface that was deleted and made again has another number: the socket keeps a membership on the
// old one, and gets nothing.
Membership RenewMembership(const Descriptor& socket, const Address& local, const Address& group,
                           bool everywhere, bool anywhere) {
    if (everywhere && !group.IsZoneLocalGroup()) {
        bool full = false;
        JoinEverywhere(socket, group, full);
        return full ? Membership::Full : Membership::Good;
    }
    uint32_t named = group.Zone() != 0 ? group.Zone() : local.Zone();
    if (named == 0 && group.IsIPv6() && !local.IsAny())
        named = InterfaceOf(local);
    else if (named == 0 && (!local.IsAny() || !anywhere))
        named = ChoiceOfSystem(local, group);
    return (named != 0 ? IsMember(socket, group, named) : IsMemberAnywhere(socket, group))
               ? Membership::Good
               : Membership::Broken;
}

void LeaveGroup(const Descriptor& socket, uint32_t interface) {
    Address group;  // as which it is bound
    if (!group.ReadFrom(socket.Number()))
        return;
    group_req membership{};
    membership.gr_interface = interface;
    memcpy(&membership.gr_group, group.Get(), group.Size());
    Set(socket, group.IsIPv6() ? IPPROTO_IPV6 : IPPROTO_IP, MCAST_LEAVE_GROUP, membership);
}

bool HasMoreMemberships(const Descriptor& socket, const Descriptor& other, const Address& group) {
    const InterfaceNames list = ListNames();
    bool more = false;
    for (const auto* entry = list.get(); entry != nullptr && entry->if_index != 0; ++entry) {
        const bool has = IsMember(socket, group, entry->if_index);
        if (!has && IsMember(other, group, entry->if_index))
            return false;
        more = more || (has && !IsMember(other, group, entry->if_index));
    }
    return more;
}

Descriptor OpenUnicastSocket(const Address& local) {
    Descriptor socket = OpenSocket(local, SOCK_NONBLOCK);
    if (!socket)
        return Descriptor();
    EnlargeReceiveBuffer(socket);
    AcceptTrains(socket);
    if (!OwnGroupsOnly(socket, local) || !BindUnicast(socket, local))
        return Descriptor();
    return socket;
}

}  // namespace zaqsockets
