#include "media/StreamUrl.h"

#include <arpa/inet.h>
#include <fmt/format.h>
#include <net/if.h>
#include <netinet/in.h>

#include <algorithm>
#include <charconv>
#include <cstring>

#include "base/Errors.h"

namespace {

constexpr std::string_view kForm = "udp://HOST:PORT or rtp://HOST:PORT";

[[noreturn]] void refuse(std::string_view url, std::string_view why) {
    throw UsageError(fmt::format("'{}': {}", url, why));
}

template <typename Number>
std::optional<Number> parseNumber(std::string_view text, unsigned int largest) {
    unsigned int value = 0;
    const char* const end = text.data() + text.size();
    const auto [stop, error] = std::from_chars(text.data(), end, value);
    if (error != std::errc() || stop != end || value > largest)
        return std::nullopt;
    return static_cast<Number>(value);
}

bool equalIgnoringCase(std::string_view a, std::string_view lower) {
    return std::equal(a.begin(), a.end(), lower.begin(), lower.end(), [](char x, char y) {
        return (x >= 'A' && x <= 'Z' ? static_cast<char>(x - 'A' + 'a') : x) == y;
    });
}

// Takes the scheme and returns what follows "://".
std::string_view takeScheme(std::string_view text, StreamUrl& url) {
    const size_t colon = text.find("://");
    if (colon == std::string_view::npos)
        refuse(text, fmt::format("not a stream URL; write {}", kForm));
    const std::string_view scheme = text.substr(0, colon);
    if (!equalIgnoringCase(scheme, "udp") && !equalIgnoringCase(scheme, "rtp"))
        refuse(text, fmt::format("unknown scheme '{}'; write {}", scheme, kForm));
    url.rtp = equalIgnoringCase(scheme, "rtp");
    return text.substr(colon + 3);
}

// Splits "HOST:PORT", the host perhaps in brackets.
void parseAuthority(std::string_view authority, StreamUrl& url) {
    const size_t at = authority.find('@');
    if (at != std::string_view::npos) {
        if (at != 0)
            refuse(url.text, "nothing may stand in front of '@' (there are no source filters)");
        authority.remove_prefix(1);
    }
    const bool bracketed = !authority.empty() && authority.front() == '[';
    const size_t bracket = bracketed ? authority.find(']') : std::string_view::npos;
    if (bracketed && bracket == std::string_view::npos)
        refuse(url.text, "']' is missing behind the IPv6 address");
    const size_t colon = bracketed ? bracket + 1 : authority.rfind(':');
    if (colon >= authority.size() || authority[colon] != ':')
        refuse(url.text, fmt::format("the port is missing; write {}", kForm));

    const std::string_view host =
        bracketed ? authority.substr(1, bracket - 1) : authority.substr(0, colon);
    if (!bracketed && host.find(':') != std::string_view::npos)
        refuse(url.text, "an IPv6 address stands in brackets: udp://[::1]:5000");
    const auto port = parseNumber<uint16_t>(authority.substr(colon + 1), UINT16_MAX);
    if (!port || *port == 0)
        refuse(url.text,
               fmt::format("'{}' is no port; a port is 1 to 65535", authority.substr(colon + 1)));
    url.port = *port;

    url.host = host.empty() && !bracketed ? "0.0.0.0" : host;
    const auto kind = classifyAddress(url.host);
    if (!kind || kind->ipv6 != bracketed)
        refuse(url.text, fmt::format("'{}' is no numeric address; write 239.1.1.1 or [ff15::1] "
                                     "(names are not looked up)",
                                     url.host));
    url.ipv6 = kind->ipv6;
    url.multicast = kind->multicast;
    url.anyHost = kind->any;
}

void parseLocalAddress(std::string_view value, StreamUrl& url) {
    if (value.size() > 2 && value.front() == '[' && value.back() == ']')
        value = value.substr(1, value.size() - 2);
    const auto kind = classifyAddress(value);
    if (!kind || kind->multicast)
        refuse(url.text, fmt::format("localaddr '{}' is no numeric unicast address", value));
    if (kind->ipv6 != url.ipv6)
        refuse(url.text, fmt::format("localaddr '{}' and host are not both {}", value,
                                     url.ipv6 ? "IPv6" : "IPv4"));
    url.localAddress = value;
}

void parseQuery(std::string_view query, StreamUrl& url) {
    while (!query.empty()) {
        const std::string_view item = query.substr(0, query.find('&'));
        query.remove_prefix(std::min(query.size(), item.size() + 1));
        const size_t equals = item.find('=');
        const std::string_view key = item.substr(0, equals);
        const std::string_view value =
            equals == std::string_view::npos ? std::string_view() : item.substr(equals + 1);
        if (key == "ttl") {
            const auto ttl = parseNumber<uint8_t>(value, UINT8_MAX);
            if (!ttl)
                refuse(url.text, fmt::format("ttl '{}' is not 0 to 255", value));
            url.ttl = *ttl;
        } else if (key == "localaddr") {
            parseLocalAddress(value, url);
        } else {
            refuse(url.text, fmt::format("unknown option '{}'; accepted are ttl=0..255 and "
                                         "localaddr=ADDRESS",
                                         key));
        }
    }
}

void store(char (&field)[QXV_RTP_ADDRESS_SIZE], std::string_view address) {
    // An address that was classified is far shorter than the field, which is zero already.
    std::memcpy(field, address.data(), std::min(address.size(), sizeof field - 1));
}

RtpChannelConfig commonConfig(const StreamUrl& url, std::string_view local) {
    RtpChannelConfig config{};
    store(config.LocalAddress, local.empty() ? (url.ipv6 ? "::" : "0.0.0.0") : local);
    store(config.RemoteAddress, url.host);
    config.Multicast = url.multicast ? 1 : 0;
    config.Ttl = url.ttl;
    config.Port = url.port;
    return config;
}

}  // namespace

std::optional<AddressKind> classifyAddress(std::string_view text) {
    const size_t percent = text.find('%');
    if (percent != std::string_view::npos) {
        const size_t zoneLength = text.size() - percent - 1;
        if (zoneLength == 0 || zoneLength >= IF_NAMESIZE)
            return std::nullopt;
    }
    const std::string digits(text.substr(0, percent));
    if (digits.find('\0') != std::string::npos)
        return std::nullopt;
    in_addr v4{};
    if (percent == std::string_view::npos && inet_pton(AF_INET, digits.c_str(), &v4) == 1) {
        const uint32_t address = ntohl(v4.s_addr);
        return AddressKind{false, (address >> 28) == 0xE, address == INADDR_ANY};
    }
    in6_addr v6{};
    if (inet_pton(AF_INET6, digits.c_str(), &v6) == 1)
        return AddressKind{true, IN6_IS_ADDR_MULTICAST(&v6) != 0,
                           IN6_IS_ADDR_UNSPECIFIED(&v6) != 0};
    return std::nullopt;
}

StreamUrl parseStreamUrl(std::string_view text) {
    StreamUrl url;
    url.text = text;
    const std::string_view rest = takeScheme(text, url);
    const size_t question = rest.find('?');
    std::string_view authority = rest.substr(0, question);
    if (authority.ends_with('/'))
        authority.remove_suffix(1);
    parseAuthority(authority, url);
    if (question != std::string_view::npos)
        parseQuery(rest.substr(question + 1), url);
    return url;
}

RtpChannelConfig sendConfig(const StreamUrl& url) {
    if (url.anyHost)
        refuse(url.text, "a destination is needed to send to; write udp://127.0.0.1:5000");
    RtpChannelConfig config = commonConfig(url, url.localAddress);
    config.Rtp = url.rtp ? 1 : 0;
    return config;
}

RtpChannelConfig receiveConfig(const StreamUrl& url) {
    if (!url.multicast && !url.anyHost && !url.localAddress.empty())
        refuse(url.text, "localaddr goes with a group; here the host is the address to listen on");
    const bool hostIsLocal = !url.multicast && url.localAddress.empty();
    RtpChannelConfig config = commonConfig(url, hostIsLocal ? url.host : url.localAddress);
    config.Rtp = 1;
    return config;
}
