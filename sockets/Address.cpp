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

// False when the text is longer than the array.
template <size_t size>
bool Copy(const char* text, char (&copy)[size]) {
    if (text == nullptr)
        return false;
    const size_t length = strnlen(text, size);
    if (length == size)
        return false;
    memcpy(copy, text, length + 1);
    return true;
}

// Ends the text before the first `mark`. Returns what follows the mark, or null when there is none.
char* CutAt(char* text, char mark) {
    char* const found = strchr(text, mark);
    if (found == nullptr)
        return nullptr;
    *found = '\0';
    return found + 1;
}

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

bool Address::Parse(const char* text) {
    m_Storage = {};
    char address[kTextBytes];
    if (!Copy(text, address))
        return false;
    if (inet_pton(AF_INET, address, &m_Storage.IPv4.sin_addr) == 1) {
        m_Storage.Any.sa_family = AF_INET;
        return true;
    }
    uint32_t zone = 0;
    const char* const zoneText = CutAt(address, '%');
    if ((zoneText != nullptr && !ParseZone(zoneText, zone)) ||
        inet_pton(AF_INET6, address, &m_Storage.IPv6.sin6_addr) != 1)
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

bool RemoteAddress::Parse(const char* text) {
    *this = {};
    char copy[kTextBytes];
    if (!Copy(text, copy))
        return false;
    if (const char* const mark = CutAt(copy, '?'); mark != nullptr && !ParseDscp(mark, Dscp))
        return false;
    const char* const group = CutAt(copy, '@');
    if (group == nullptr)
        return Host.Parse(copy);
    // A source needs no zone: that of the group says by which interface it comes.
    return strchr(copy, '%') == nullptr && Source.Parse(copy) && Host.Parse(group) &&
           Source.Family() == Host.Family() && Host.IsMulticast() && !Source.IsMulticast() &&
           !Source.IsAny();
}

}  // namespace zaqsockets

uint32_t ZAQSocketsExtractIPAddress(const char* address, unsigned char* bytes, uint32_t* byteCount,
                                    uint32_t* zone, int32_t* multicast) {
    const zaqsockets::CancellationOff uncancelled;
    zaqsockets::RemoteAddress parsed;
    if (!parsed.Parse(address))
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
