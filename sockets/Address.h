// An IPv4 or IPv6 address, as text and as the system's structure.
#ifndef SOCKETS_ADDRESS_H
#define SOCKETS_ADDRESS_H

#include <net/if.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <cstddef>
#include <cstdint>

namespace zaqsockets {

class Address {
  public:
    // Room for the longest text that can be right, with its NUL.
    static constexpr size_t kTextBytes = INET6_ADDRSTRLEN + 1 + IF_NAMESIZE;

    // False, with the address unusable, when the text is no numeric address (see ZAQSockets.h).
    bool Parse(const char* text);

    // The local address of a socket.
    bool ReadFrom(int socket);

    bool IsIPv6() const { return m_Storage.Any.sa_family == AF_INET6; }
    int Family() const { return m_Storage.Any.sa_family; }
    bool IsMulticast() const;
    bool IsAny() const;
    // An IPv6 group of interface or link scope (RFC 4291, 2.7), which means nothing without a zone.
    bool IsZoneLocalGroup() const;

    // False, with nothing changed, when it is of another family.
    bool Assign(const sockaddr& address, int family);

    // Is this the other address, but for port and zone?
    bool IsSameHost(const sockaddr& other) const;

    const in_addr& IPv4() const { return m_Storage.IPv4.sin_addr; }
    const in6_addr& IPv6() const { return m_Storage.IPv6.sin6_addr; }
    uint32_t Zone() const { return IsIPv6() ? m_Storage.IPv6.sin6_scope_id : 0; }

    // An IPv6 unicast address of link scope, which cannot be bound without a zone.
    bool IsLinkLocal() const { return IsIPv6() && IN6_IS_ADDR_LINKLOCAL(&IPv6()); }

    uint32_t Port() const;
    void SetPort(uint32_t port);
    void SetZone(uint32_t zone) { m_Storage.IPv6.sin6_scope_id = zone; }

    const sockaddr* Get() const { return &m_Storage.Any; }
    socklen_t Size() const { return IsIPv6() ? sizeof(sockaddr_in6) : sizeof(sockaddr_in); }

  private:
    union {
        sockaddr Any;
        sockaddr_in IPv4;
        sockaddr_in6 IPv6;
    } m_Storage{};
};

}  // namespace zaqsockets

#endif
