#include "media/Sdp.h"

#include <arpa/inet.h>
#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <charconv>
#include <optional>
#include <vector>

#include "base/SafeText.h"

namespace {

constexpr unsigned int kPayloadType = 33;  // MP2T (RFC 3551)

std::string_view trimmed(std::string_view text) {
    while (text.ends_with('\r') || text.ends_with(' '))
        text.remove_suffix(1);
    return text;
}

// Takes the text in front of the separator, which is left out.
std::string_view take(std::string_view& text, char separator) {
    const size_t at = text.find(separator);
    const std::string_view head = text.substr(0, at);
    text.remove_prefix(at == std::string_view::npos ? text.size() : at + 1);
    return head;
}

std::optional<unsigned int> number(std::string_view text, unsigned int largest) {
    unsigned int value = 0;
    const auto [stop, error] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (error != std::errc() || stop != text.data() + text.size() || value > largest)
        return std::nullopt;
    return value;
}

bool sameWord(std::string_view a, std::string_view b) {
    const auto lower = [](char c) { return c >= 'A' && c <= 'Z' ? c - 'A' + 'a' : c; };
    return std::equal(a.begin(), a.end(), b.begin(), b.end(),
                      [&](char x, char y) { return lower(x) == lower(y); });
}

// What the lines say of the session, or of one medium.
struct Section {
    std::string_view connection;            // address, with the numbers behind it
    std::vector<std::string_view> filters;  // "incl IN IP4 239.1.1.1 192.0.2.7"
    std::string_view media;                 // of a medium: "video 5000 RTP/AVP 33"
    std::vector<std::string_view> maps;     // "33 MP2T/90000"
};

// The only source from which a group is let through (RFC 4570); of several, none is the one.
std::string_view onlySource(const Section& section, std::string_view group) {
    std::string_view source;
    for (std::string_view filter : section.filters) {
        filter = trimmed(filter);
        while (filter.starts_with(' '))
            filter.remove_prefix(1);
        const std::string_view mode = take(filter, ' ');
        for (int i = 0; i < 2; ++i)  // network, family
            take(filter, ' ');
        const std::string_view destination = take(filter, ' ');
        if (sameWord(mode, "incl") && (destination == "*" || sameWord(destination, group)))
            source = filter.find(' ') == std::string_view::npos ? filter : std::string_view();
    }
    return source;
}

void read(std::string_view line, Section& section) {
    constexpr std::string_view kFilter = "a=source-filter:";
    constexpr std::string_view kMap = "a=rtpmap:";
    if (line.starts_with("c=IN IP"))
        section.connection = line.substr(std::min<size_t>(line.size(), 9));
    else if (line.starts_with(kFilter))
        section.filters.push_back(line.substr(kFilter.size()));
    else if (line.starts_with(kMap))
        section.maps.push_back(line.substr(kMap.size()));
}

struct Medium {
    unsigned int port = 0;
    bool rtp = false;
};

// The type of a transport stream is 33 (RFC 3551), or what a map says of another one.
bool isTransportStream(std::string_view type, const Section& section) {
    return type == std::to_string(kPayloadType) ||
           std::any_of(section.maps.begin(), section.maps.end(), [type](std::string_view map) {
               return take(map, ' ') == type && sameWord(take(map, '/'), "MP2T");
           });
}

// None: it carries no transport stream, or not as it is received here.
std::optional<Medium> transportStream(const Section& section) {
    std::string_view media = section.media;
    take(media, ' ');  // the kind: video, or what else a sender calls it
    std::string_view ports = take(media, ' ');
    const auto port = number(take(ports, '/'), UINT16_MAX);
    const std::string_view protocol = take(media, ' ');
    if (!port || *port == 0)
        return std::nullopt;
    while (sameWord(protocol, "RTP/AVP") && !media.empty())
        if (isTransportStream(take(media, ' '), section))
            return Medium{*port, true};
    for (const char* const raw : {"UDP", "RAW/UDP", "MP2T/UDP", "MP2T/H2221/UDP"})
        if (sameWord(protocol, raw))
            return Medium{*port, false};
    return std::nullopt;
}

uint64_t hashOf(std::string_view text) {  // FNV-1a
    uint64_t hash = 14695981039346656037U;
    for (const char c : text)
        hash = (hash ^ static_cast<uint8_t>(c)) * 1099511628211U;
    return hash;
}

// Without its zone, which means nothing to others.
std::string plain(const std::string& host) {
    return host.substr(0, host.find('%'));
}

}  // namespace

std::string urlOfSdp(std::string_view text, const std::string& file) {
    const auto refuse = [&file](std::string_view why) -> void {
        throw UsageError(fmt::format("'{}': {}", file, why));
    };
    if (!text.starts_with("v=0"))
        refuse("it is no session description: it does not begin with v=0");
    if (text.find('\0') != std::string_view::npos || text.size() > kLongestSdp)
        refuse("it is no session description");
    Section session;
    std::vector<Section> media;
    while (!text.empty()) {
        const std::string_view line = trimmed(take(text, '\n'));
        if (line.starts_with("m="))
            media.push_back({session.connection, {}, line.substr(2), {}});
        else
            read(line, media.empty() ? session : media.back());
    }
    for (Section& section : media) {
        const auto medium = transportStream(section);
        if (!medium)
            continue;
        if (section.filters.empty())
            section.filters = session.filters;
        std::string_view connection = section.connection;
        const std::string_view host = take(connection, '/');
        if (host.empty())
            refuse("it has no line c= with an address");
        const bool ipv6 = host.find(':') != std::string_view::npos;
        std::string url = fmt::format("{}://{}{}{}:{}", medium->rtp ? "rtp" : "udp",
                                      ipv6 ? "[" : "", host, ipv6 ? "]" : "", medium->port);
        const auto kind = classifyAddress(host);
        // Options of the URL are not the description's to give.
        const std::string_view source = onlySource(section, host);
        if (source.find_first_of("&?/@") != std::string_view::npos)
            refuse("the source of its line a=source-filter is no address");
        if (kind && kind->multicast && !source.empty() && source != "*")
            url += fmt::format("?source={}", source);
        try {
            checkSource(parseStreamUrl(url));
        } catch (const UsageError& error) {
            refuse(fmt::format("what it describes cannot be received: {}", error.what()));
        }
        return url;
    }
    refuse("it describes no transport stream, such as m=video 5000 RTP/AVP 33");
    return {};
}

uint64_t sessionOf(const StreamUrl& url, const std::string& name) {
    // Some programs read it as a number with a sign.
    return hashOf(fmt::format("{} {} {} {} {} {}", url.host, url.port, url.ttl, url.localAddress,
                              url.interface, name)) >>
           1;
}

std::string writeSdp(const StreamUrl& url, const std::string& name, const std::string& origin) {
    const auto family = [](const std::string& address) {
        return address.find(':') == std::string::npos ? "IP4" : "IP6";
    };
    const std::string host = plain(url.host);
    const std::string local = plain(url.localAddress);
    std::string text = fmt::format(
        "v=0\r\no=- {} 1 IN {} {}\r\ns={}\r\nc=IN {} {}{}\r\nt=0 0\r\na=tool:qxvrtp\r\n"
        "a=type:broadcast\r\nm=video {} RTP/AVP {}\r\na=rtpmap:{} MP2T/90000\r\n",
        sessionOf(url, name), family(origin), plain(origin), name.empty() ? "-" : printable(name),
        family(host), host, url.multicast && !url.ipv6 ? fmt::format("/{}", url.ttl) : "", url.port,
        kPayloadType, kPayloadType);
    if (url.multicast && !local.empty())
        text += fmt::format("a=source-filter: incl IN {} {} {}\r\n", family(host), host, local);
    return text;
}

std::string sdpFileName(const StreamUrl& url) {
    std::string name = fmt::format("{}_{}", url.host, url.port);
    for (const std::string& part : {url.localAddress, url.interface})
        if (!part.empty())
            name += '_' + part;
    std::replace_if(
        name.begin(), name.end(), [](char c) { return c == ':' || c == '%' || c == '/'; }, '-');
    return name + ".sdp";
}

std::string sapGroup(const StreamUrl& url) {
    const std::string host = plain(url.host);
    in6_addr six{};
    if (url.multicast && inet_pton(AF_INET6, host.c_str(), &six) == 1)
        return fmt::format("ff0{:x}::2:7ffe", six.s6_addr[1] & 0xF);
    in_addr four{};
    if (!url.multicast || inet_pton(AF_INET, host.c_str(), &four) != 1)
        return {};
    const uint32_t address = ntohl(four.s_addr);
    struct Scope {
        uint32_t first;
        uint32_t mask;
        const char* group;  // the highest of the scope
    };
    constexpr Scope kScopes[] = {{0xE0000000, 0xFFFFFF00, "224.0.0.255"},
                                 {0xEFC00000, 0xFFFC0000, "239.195.255.255"},
                                 {0xEFFF0000, 0xFFFF0000, "239.255.255.255"}};
    for (const Scope& scope : kScopes)
        if ((address & scope.mask) == scope.first)
            return scope.group;
    return "224.2.127.254";
}

std::chrono::milliseconds sapInterval(size_t bytes, size_t packets, double spread) {
    constexpr double kBitsPerSecond = 4000.0;  // of all packets to a group
    constexpr double kShortest = 300.0;
    const double seconds =
        std::max(kShortest, 8.0 * static_cast<double>(packets * bytes) / kBitsPerSecond);
    return std::chrono::milliseconds(
        static_cast<int64_t>(seconds * 1000.0 * (1.0 + (spread - 0.5) * 2.0 / 3.0)));
}

std::string sapPacket(std::string_view sdp, uint64_t session, const std::string& origin,
                      bool takesBack) {
    constexpr unsigned int kVersion = 1 << 5;
    constexpr unsigned int kIPv6 = 1 << 4;
    constexpr unsigned int kDeletion = 1 << 2;
    constexpr std::string_view kType("application/sdp\0", 16);
    const std::string address = plain(origin);
    std::array<char, sizeof(in6_addr)> bytes{};
    const bool ipv6 = inet_pton(AF_INET6, address.c_str(), bytes.data()) == 1;
    if (!ipv6 && inet_pton(AF_INET, address.c_str(), bytes.data()) != 1)
        return {};
    std::string packet;
    packet += static_cast<char>(kVersion | (ipv6 ? kIPv6 : 0) | (takesBack ? kDeletion : 0));
    packet += '\0';  // no authentication
    // Listeners may leave out what has the number 0.
    const uint64_t number = std::max<uint64_t>(session & 0xFFFF, 1);
    packet += static_cast<char>(number >> 8);
    packet += static_cast<char>(number & 0xFF);
    packet.append(bytes.data(), ipv6 ? sizeof(in6_addr) : sizeof(in_addr));
    return packet.append(kType).append(sdp);
}
