#include "Address.h"

#include <arpa/inet.h>

#include <charconv>
#include <cstring>
#include <string_view>
#include <system_error>

#include "Threads.h"
#include "ZAQSockets.h"

namespace zaqsockets {

namespace {

// Number of the zone that `text` names: an interface that exists, or a number above 0.
bool ParseZone(const char* text, uint32_t& zone) {
    const char* const end = text + strlen(text);
    if (text == end || end - text > IF_NAMESIZE)
        return false;
    zone = if_nametoindex(text);
    if (zone != 0)
        return true;
    const auto [stop, error] = std::from_chars(text, end, zone);
    return error == std::errc() && stop == end && zone != 0;
}

// "dscp=" and a number of one or two digits.
bool ParseDscp(std::string_view text, int& dscp) {
    constexpr std::string_view kKey = "dscp=";
    constexpr unsigned int kHighest = 63;
    constexpr size_t kMostDigits = 2;
    if (!text.starts_with(kKey))
        return false;
    text.remove_prefix(kKey.size());
    unsigned int number = 0;
    const auto [stop, error] = std::from_chars(text.begin(), text.end(), number);
    dscp = static_cast<int>(number);
    return error == std::errc() && stop == text.end() && text.size() <= kMostDigits &&
           number <= kHighest;
}

}  // namespace

std::string_view AddressText(const char* text) {
    return text != nullptr ? std::string_view(text, strnlen(text, RemoteAddress::kTextBytes)) : "";
}

bool Address::Parse(std::string_view text) {
    m_Storage = {};
    char address[kTextBytes] = "";
    if (text.size() >= sizeof(address))
        return false;
    text.copy(address, text.size());
    if (inet_pton(AF_INET, address, &m_Storage.IPv4.sin_addr) == 1) {
        m_Storage.Any.sa_family = AF_INET;
        return true;
    }
    uint32_t zone = 0;
    if (char* const mark = strchr(address, '%'); mark != nullptr) {
        *mark = '\0';
        if (!ParseZone(mark + 1, zone))
            return false;
    }
    if (inet_pton(AF_INET6, address, &m_Storage.IPv6.sin6_addr) != 1)
        return false;
    m_Storage.Any.sa_family = AF_INET6;
    m_Storage.IPv6.sin6_scope_id = zone;
    return true;
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

bool Address::IsSameHost(const sockaddr& other) const {
    if (other.sa_family != Family())
        return false;
    Address copy;
    memcpy(&copy.m_Storage, &other, Size());
    return memcmp(copy.Bytes(), Bytes(), ByteCount()) == 0;
}

const void* Address::Bytes() const {
    return IsIPv6() ? static_cast<const void*>(&IPv6()) : &IPv4();
}

void Address::SetPort(uint32_t port) {
    const in_port_t number = htons(static_cast<uint16_t>(port));
    if (IsIPv6())
        m_Storage.IPv6.sin6_port = number;
    else
        m_Storage.IPv4.sin_port = number;
}

bool RemoteAddress::Parse(std::string_view text) {
    *this = {};
    const size_t mark = text.find('?');
    if (mark != text.npos && !ParseDscp(text.substr(mark + 1), Dscp))
        return false;
    text = text.substr(0, mark);
    const size_t at = text.find('@');
    if (at == text.npos)
        return Host.Parse(text);
    // A source needs no zone: that of the group says by which interface it comes.
    const std::string_view source = text.substr(0, at);
    return source.find('%') == source.npos && Source.Parse(source) &&
           Host.Parse(text.substr(at + 1)) && Source.Family() == Host.Family() &&
           Host.IsMulticast() && !Source.IsMulticast() && !Source.IsAny();
}

}  // namespace zaqsockets

uint32_t ZAQSocketsExtractIPAddress(const char* address, unsigned char* bytes, uint32_t* byteCount,
                                    uint32_t* zone, int32_t* multicast) {
    const zaqsockets::CancellationOff uncancelled;
    zaqsockets::RemoteAddress parsed;
    if (!parsed.Parse(zaqsockets::AddressText(address)))
        return 0;
    const zaqsockets::Address& host = parsed.Host;
    if (bytes != nullptr)
        memcpy(bytes, host.Bytes(), host.ByteCount());
    if (byteCount != nullptr)
        *byteCount = static_cast<uint32_t>(host.ByteCount());
    if (zone != nullptr)
        *zone = host.Zone();
    if (multicast != nullptr)
        *multicast = host.IsMulticast() ? 1 : 0;
    return static_cast<uint32_t>(host.Family());
}
