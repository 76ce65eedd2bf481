// IPv4 and IPv6 addresses, as text and as the system's structures.
#ifndef SOCKETS_ADDRESS_H
#define SOCKETS_ADDRESS_H

#include <net/if.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <cstddef>
#include <cstdint>
#include <string_view>

namespace zaqsockets {

class Address {
  public:
    // Room for the longest text that is an address, with its NUL.
    static constexpr size_t kTextBytes = INET6_ADDRSTRLEN + 1 + IF_NAMESIZE;

    // False, with the address unusable, when the text is no numeric address (see ZAQSockets.h).
    bool Parse(std::string_view text);

    int Family() const { return m_Storage.Any.sa_family; }  // AF_UNSPEC until it is parsed
    bool IsIPv6() const { return Family() == AF_INET6; }
    bool IsMulticast() const;
    bool IsAny() const;
    // An IPv6 unicast address of link scope, which cannot be bound without a zone.
    bool IsLinkLocal() const { return IsIPv6() && IN6_IS_ADDR_LINKLOCAL(&IPv6()); }
    // An IPv6 group of interface or link scope (RFC 4291, 2.7), which means nothing without a zone.
    bool IsZoneLocalGroup() const;
    // Is this the other address, apart from port and zone?
    bool IsSameHost(const sockaddr& other) const;

    const in_addr& IPv4() const { return m_Storage.IPv4.sin_addr; }
    const in6_addr& IPv6() const { return m_Storage.IPv6.sin6_addr; }
    const void* Bytes() const;
    size_t ByteCount() const { return IsIPv6() ? sizeof(in6_addr) : sizeof(in_addr); }
    uint32_t Zone() const { return IsIPv6() ? m_Storage.IPv6.sin6_scope_id : 0; }
    void SetZone(uint32_t zone) { m_Storage.IPv6.sin6_scope_id = zone; }
    void SetPort(uint32_t port);
    const sockaddr* Get() const { return &m_Storage.Any; }
    socklen_t Size() const { return IsIPv6() ? sizeof(sockaddr_in6) : sizeof(sockaddr_in); }

  private:
    union {
        sockaddr Any;
        sockaddr_in IPv4;
        sockaddr_in6 IPv6;
    } m_Storage{};
};

// The remote end of a stream: an address, to a group of which one sender may be named (RFC 4607),
// with a mark for routers (DSCP, RFC 2474).
struct RemoteAddress {
    // Room for the longest text that is one, with its NUL.
    static constexpr size_t kTextBytes =
        INET6_ADDRSTRLEN + Address::kTextBytes + sizeof("?dscp=63");

    // As Address::Parse.
    bool Parse(std::string_view text);
    bool HasSource() const { return Source.Family() != AF_UNSPEC; }

    Address Host;
    Address Source;
    int Dscp = -1;  // none given
};

// A text from outside: empty for null, and cut off where it is too long for any address.
std::string_view AddressText(const char* text);

}  // namespace zaqsockets

#endif
