#include "GroupSocket.h"

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "SocketOptions.h"

namespace zaqsockets {

namespace {

// What the texts of a group mean now.
struct Meaning {
    bool Parse(const Group& group) {
        if (!Local.Parse(group.Local) || !Remote.Parse(group.Remote))
            return false;
        IsNamed = !Local.IsAny() || Local.Zone() != 0 || Remote.Host.Zone() != 0;
        // A group of link scope is another one on every interface.
        Everywhere = group.Everywhere && !Remote.Host.IsZoneLocalGroup();
        return true;
    }
    int Level() const { return Remote.Host.IsIPv6() ? IPPROTO_IPV6 : IPPROTO_IP; }

    Address Local;
    RemoteAddress Remote;
    bool IsNamed = false;  // the interface on which the group is meant
    bool Everywhere = false;
};

// RFC 3678, 5.1: the functions that both families have.
bool Join(const Descriptor& socket, const Meaning& meaning, uint32_t interface) {
    const Address& group = meaning.Remote.Host;
    if (!meaning.Remote.HasSource()) {
        group_req request{};
        request.gr_interface = interface;
        memcpy(&request.gr_group, group.Get(), group.Size());
        return Set(socket, meaning.Level(), MCAST_JOIN_GROUP, request);
    }
    group_source_req request{};
    request.gsr_interface = interface;
    memcpy(&request.gsr_group, group.Get(), group.Size());
    memcpy(&request.gsr_source, meaning.Remote.Source.Get(), group.Size());
    return Set(socket, meaning.Level(), MCAST_JOIN_SOURCE_GROUP, request);
}

// On the interface that the system finds for an IPv4 address: one of a network that is local as a
// whole, such as 127.0.0.5, or any where rtnetlink is refused.
bool JoinByAddress(const Descriptor& socket, const Meaning& meaning) {
    const in_addr group = meaning.Remote.Host.IPv4();
    const in_addr local = meaning.Local.IPv4();
    if (!meaning.Remote.HasSource())
        return Set(socket, IPPROTO_IP, IP_ADD_MEMBERSHIP, ip_mreq{group, local});
    const ip_mreq_source filtered{group, local, meaning.Remote.Source.IPv4()};
    return Set(socket, IPPROTO_IP, IP_ADD_SOURCE_MEMBERSHIP, filtered);
}

// Joins where that has not been done yet, until the socket can have no more memberships (ENOBUFS).
// Each attempt takes the kernel's lock of all networking, so none is made in vain.
void JoinEverywhere(Group& group, const Descriptor& socket, const Meaning& meaning,
                    const InterfaceList& interfaces) {
    for (const uint32_t interface : interfaces.ForGroups()) {
        if (std::ranges::find(group.Joined, interface) != group.Joined.end())
            continue;
        // Relaxed: only the time that the rest takes depends on it.
        if (group.IsDestroyed.load(std::memory_order_relaxed))
            return;
        group.Joined.reserve(group.Joined.size() + 1);  // may throw, so not after the joining
        if (Join(socket, meaning, interface))
            group.Joined.push_back(interface);
        else if (errno == ENOBUFS)
            return;
    }
}

// Where a group of one interface is to be joined. 0 = that is not known.
uint32_t FindInterface(const Meaning& meaning, const InterfaceList& interfaces) {
    const Address& group = meaning.Remote.Host;
    return meaning.IsNamed || group.IsZoneLocalGroup()
               ? GroupInterface(meaning.Local, group, interfaces)
               : RouteTo(group);
}

}  // namespace

Descriptor OpenGroupSocket(Group& group, const InterfaceList& interfaces) {
    Meaning meaning;
    if (!meaning.Parse(group))
        return Descriptor();
    const bool six = meaning.Remote.Host.IsIPv6();
    const uint32_t interface = meaning.Everywhere ? 0 : FindInterface(meaning, interfaces);
    Address bound = meaning.Remote.Host;
    bound.SetPort(group.Port);
    if (bound.IsZoneLocalGroup())
        bound.SetZone(interface);
    // Bound to the group itself, so that the port's other groups and its unicast stay out.
    Descriptor socket = OpenReceiveSocket(bound);
    if (!socket || !Set(socket, SOL_SOCKET, SO_REUSEADDR, 1) || !Bind(socket, bound))
        return Descriptor();
    group.Joined.clear();
    if (meaning.Everywhere) {
        JoinEverywhere(group, socket, meaning, interfaces);
        return group.Joined.empty() ? Descriptor() : std::move(socket);
    }
    group.Joined.push_back(interface);
    if (interface == 0 && meaning.IsNamed)
        return !six && JoinByAddress(socket, meaning) ? std::move(socket) : Descriptor();
    // IPv6 membership does not look at the interface by which a datagram came (unlike IPv4, where
    // it does): a group that another socket joined elsewhere would come in here, too.
    if (six && meaning.IsNamed)
        Set(socket, SOL_SOCKET, SO_BINDTOIFINDEX, static_cast<int>(interface));
    return Join(socket, meaning, interface) ? std::move(socket) : Descriptor();
}

// The zone's name may mean nothing at the moment, or another interface.
static Meaning WithoutZone(const Group& group) {
    Meaning meaning;
    meaning.Remote.Parse(group.Remote.substr(0, group.Remote.find('%')));
    return meaning;
}

void LeaveInterface(Group& group, const Descriptor& socket, uint32_t interface) {
    const Meaning meaning = WithoutZone(group);
    std::erase(group.Joined, interface);
    group_req request{};
    request.gr_interface = interface;
    memcpy(&request.gr_group, meaning.Remote.Host.Get(), meaning.Remote.Host.Size());
    Set(socket, meaning.Level(), MCAST_LEAVE_GROUP, request);
}

void JoinInterface(Group& group, const Descriptor& socket, uint32_t interface) {
    if (Join(socket, WithoutZone(group), interface))
        group.Joined.push_back(interface);  // does not throw: LeaveInterface has left room
}

bool RenewMemberships(Group& group, const Descriptor& socket, const InterfaceList& interfaces,
                      Descriptor& renewed) {
    Meaning meaning;
    if (!interfaces || !meaning.Parse(group))
        return false;  // the latter where a zone's interface is gone
    if (meaning.Everywhere) {
        for (const uint32_t interface : std::vector(group.Joined))
            if (!interfaces.Has(interface))
                LeaveInterface(group, socket, interface);
        JoinEverywhere(group, socket, meaning, interfaces);
        return true;
    }
    const uint32_t current = group.Joined.empty() ? 0 : group.Joined.front();
    const bool isJoined = !group.Joined.empty() && (current == 0 || interfaces.Has(current));
    // Another interface that has the route now is no reason to leave a stream that comes in.
    // One that is not known may be gone unnoticed.
    if (isJoined && current != 0 && !meaning.IsNamed && !group.Follows)
        return true;
    const uint32_t wanted = FindInterface(meaning, interfaces);
    if (wanted == 0 || (isJoined && wanted == current))
        return isJoined && (current != 0 || meaning.IsNamed);
    const std::vector<uint32_t> before = group.Joined;
    renewed = OpenGroupSocket(group, interfaces);
    if (!renewed) {
        group.Joined = before;
        return isJoined;
    }
    group.Follows = true;
    return true;
}

}  // namespace zaqsockets
