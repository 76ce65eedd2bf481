#include "Interfaces.h"

#include <linux/rtnetlink.h>
#include <net/if.h>
#include <netpacket/packet.h>
#include <sys/socket.h>

#include <algorithm>
#include <cstring>
#include <utility>

namespace zaqsockets {

namespace {

// An interface stands in the list once for itself, and once for each of its addresses.
bool IsInterfaceItself(const ifaddrs& entry) {
    return entry.ifa_addr == nullptr || entry.ifa_addr->sa_family == AF_PACKET;
}

// An interface without a link-layer address, such as a tunnel, has no AF_PACKET address either.
uint32_t NumberOf(const ifaddrs& interface) {
    if (interface.ifa_addr == nullptr)
        return if_nametoindex(interface.ifa_name);
    sockaddr_ll link;
    memcpy(&link, interface.ifa_addr, sizeof(link));
    return static_cast<uint32_t>(link.sll_ifindex);
}

}  // namespace

InterfaceList::InterfaceList() {
    ifaddrs* entry = nullptr;
    if (getifaddrs(&entry) != 0)
        return;
    for (m_Entries.reset(entry); entry != nullptr; entry = entry->ifa_next)
        if (IsInterfaceItself(*entry))
            m_Numbers.push_back(NumberOf(*entry));
    std::ranges::sort(m_Numbers);
}

uint32_t InterfaceList::WithAddress(const Address& address) const {
    for (const ifaddrs* entry = m_Entries.get(); entry != nullptr; entry = entry->ifa_next)
        // The system ignores the label that may follow the name, as in "eth0:1".
        if (entry->ifa_addr != nullptr && address.IsSameHost(*entry->ifa_addr))
            return if_nametoindex(entry->ifa_name);
    return 0;
}

bool InterfaceList::Has(uint32_t interface) const {
    return std::ranges::binary_search(m_Numbers, interface);
}

std::vector<uint32_t> InterfaceList::ForGroups() const {
    constexpr unsigned int kWanted = IFF_UP | IFF_MULTICAST;
    std::vector<uint32_t> numbers;
    for (const ifaddrs* entry = m_Entries.get(); entry != nullptr; entry = entry->ifa_next)
        if (IsInterfaceItself(*entry) && (entry->ifa_flags & kWanted) == kWanted)
            numbers.push_back(NumberOf(*entry));
    return numbers;
}

uint32_t RouteTo(const Address& group) {
    struct {
        nlmsghdr Header;
        rtmsg Route;
        rtattr Attribute;
        unsigned char Bytes[4096];  // of the attribute; the answer has more of them
    } message{};
    const auto addressBytes = static_cast<uint16_t>(group.ByteCount());
    message.Header.nlmsg_len =
        static_cast<uint32_t>(NLMSG_SPACE(sizeof(rtmsg))) + RTA_LENGTH(addressBytes);
    message.Header.nlmsg_type = RTM_GETROUTE;
    message.Header.nlmsg_flags = NLM_F_REQUEST;
    message.Route.rtm_family = static_cast<unsigned char>(group.Family());
    message.Route.rtm_dst_len = static_cast<unsigned char>(addressBytes * 8);
    message.Attribute = {static_cast<uint16_t>(RTA_LENGTH(addressBytes)), RTA_DST};
    memcpy(message.Bytes, group.Bytes(), addressBytes);

    const Descriptor netlink = OpenNetlink(0);
    // The kernel has answered before send() returns.
    if (!netlink || send(netlink.Number(), &message, message.Header.nlmsg_len, 0) < 0 ||
        recv(netlink.Number(), &message, sizeof(message), 0) < 0 ||
        message.Header.nlmsg_type != RTM_NEWROUTE)
        return 0;
    const auto* next = reinterpret_cast<const unsigned char*>(&message.Attribute);
    const auto* const end = reinterpret_cast<const unsigned char*>(&message) +
                            std::min<size_t>(message.Header.nlmsg_len, sizeof(message));
    while (next + RTA_LENGTH(sizeof(uint32_t)) <= end) {
        rtattr attribute;
        uint32_t value;
        memcpy(&attribute, next, sizeof(attribute));
        memcpy(&value, next + sizeof(attribute), sizeof(value));
        if (attribute.rta_type == RTA_OIF)
            return value;
        next += std::max<size_t>(RTA_ALIGN(attribute.rta_len), sizeof(attribute));
    }
    return 0;
}

Descriptor OpenNetlink(uint32_t groups) {
    // The kernel gives a process's first netlink socket the process's number (netlink(7)), which
    // other code of the host may request by itself. So ours is never the first one.
    const auto open = [](uint32_t wanted) {
        Descriptor opened(
            socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC | SOCK_NONBLOCK, NETLINK_ROUTE));
        sockaddr_nl address{};
        address.nl_family = AF_NETLINK;
        address.nl_groups = wanted;
        const auto* const generic = reinterpret_cast<const sockaddr*>(&address);
        return opened && bind(opened.Number(), generic, sizeof(address)) == 0 ? std::move(opened)
                                                                              : Descriptor();
    };
    const Descriptor first = open(0);
    return open(groups);
}

}  // namespace zaqsockets
