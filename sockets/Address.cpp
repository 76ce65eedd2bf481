#include "Address.h"

#include <arpa/inet.h>
#include <net/if.h>

#include <charconv>
#include <cstring>
#include <system_error>

#include "ZAQSockets.h"

namespace zaqsockets {

namespace {

// Number of the zone that `text` names: an interface that exists, or a number above 0.
bool ParseZone(const char* text, uint32_t& zone) {
    const char* const end = text + strnlen(text, IF_NAMESIZE);
    if (text == end || *end != '\0')
        return false;
    zone = if_nametoindex(text);
    if (zone != 0)
        return true;
    const auto [stop, error] = std::from_chars(text, end, zone);
    return error == std::errc() && stop == end && zone != 0;
}

}  // namespace

bool Address::Parse(const char* text) {
    m_Storage = {};
    if (text == nullptr)
        return false;
    char address[kTextBytes];
    const size_t length = strnlen(text, sizeof(address));
    if (length == sizeof(address))
        return false;
    memcpy(address, text, length + 1);

    if (inet_pton(AF_INET, address, &m_Storage.IPv4.sin_addr) == 1) {
        m_Storage.Any.sa_family = AF_INET;
        return true;
    }
    uint32_t zone = 0;
    char* const percent = strchr(address, '%');
    if (percent != nullptr) {
        *percent = '\0';
        if (!ParseZone(percent + 1, zone))
            return false;
    }
    if (inet_pton(AF_INET6, address, &m_Storage.IPv6.sin6_addr) != 1)
        return false;
    m_Storage.Any.sa_family = AF_INET6;
    m_Storage.IPv6.sin6_scope_id = zone;
    return true;
}

bool Address::ReadFrom(int socket) {
    socklen_t size = sizeof(m_Storage);
    return getsockname(socket, &m_Storage.Any, &size) == 0;
}

bool Address::IsMulticast() const {
    return IsIPv6() ? IN6_IS_ADDR_MULTICAST(&IPv6()) : IN_MULTICAST(ntohl(IPv4().s_addr));
}

bool Address::IsAny() const {
    return IsIPv6() ? IN6_IS_ADDR_UNSPECIFIED(&IPv6()) : IPv4().s_addr == htonl(INADDR_ANY);
}

bool Address::IsZoneLocalGroup() const {
    return IsIPv6() && (IN6_IS_ADDR_MC_NODELOCAL(&IPv6()) || IN6_IS_ADDR_MC_LINKLOCAL(&IPv6()));
}

bool Address::Assign(const sockaddr& address, int family) {
    if (address.sa_family != family)
        return false;
    memcpy(&m_Storage, &address, family == AF_INET6 ? sizeof(sockaddr_in6) : sizeof(sockaddr_in));
    return true;
}

bool Address::IsSameHost(const sockaddr& other) const {
    Address copy;
    return copy.Assign(other, Family()) && (IsIPv6() ? IN6_ARE_ADDR_EQUAL(&copy.IPv6(), &IPv6())
                                                     : copy.IPv4().s_addr == IPv4().s_addr);
}

uint32_t Address::Port() const {
    return ntohs(IsIPv6() ? m_Storage.IPv6.sin6_port : m_Storage.IPv4.sin_port);
}

void Address::SetPort(uint32_t port) {
    const in_port_t number = htons(static_cast<uint16_t>(port));
    if (IsIPv6())
        m_Storage.IPv6.sin6_port = number;
    else
        m_Storage.IPv4.sin_port = number;
}

}  // namespace zaqsockets

uint32_t ZAQSocketsExtractIPAddress(const char* address, unsigned char* bytes, uint32_t* byteCount,
                                    uint32_t* zone, int32_t* multicast) {
    zaqsockets::Address parsed;
    if (!parsed.Parse(address))
        return 0;
    const bool six = parsed.IsIPv6();
    const uint32_t size = six ? sizeof(in6_addr) : sizeof(in_addr);
    if (bytes != nullptr) {
        if (six)
            memcpy(bytes, &parsed.IPv6(), size);
        else
            memcpy(bytes, &parsed.IPv4(), size);
    }
    if (byteCount != nullptr)
        *byteCount = size;
    if (zone != nullptr)
        *zone = parsed.Zone();
    if (multicast != nullptr)
        *multicast = parsed.IsMulticast() ? 1 : 0;
    return static_cast<uint32_t>(parsed.Family());
}
