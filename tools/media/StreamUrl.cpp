#include "media/StreamUrl.h"

#include <arpa/inet.h>
#include <fmt/format.h>
#include <net/if.h>
#include <netinet/in.h>

#include <algorithm>
#include <charconv>
#include <cstring>

#include "media/HostNames.h"

namespace {

constexpr size_t kLongestName = 253;
constexpr size_t kMostPaths = 4;
constexpr uint16_t kLongestReorder_ms = 1000;
constexpr uint16_t kReorder_ms = 50;  // if not given: many times the jitter of a good network
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

std::string lowerCase(std::string_view text) {
    std::string lower(text);
    for (char& c : lower)
        c = c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
    return lower;
}

// Where another URL begins behind a '+'; npos = nowhere.
size_t nextPath(std::string_view text) {
    const std::string lower = lowerCase(text);
    return std::min(lower.find("+udp://"), lower.find("+rtp://"));
}

// Takes the scheme and returns what follows "://".
std::string_view takeScheme(std::string_view text, StreamUrl& url) {
    const size_t colon = text.find("://");
    if (colon == std::string_view::npos)
        refuse(text, fmt::format("not a stream URL; write {}", kForm));
    const std::string_view scheme = text.substr(0, colon);
    url.rtp = lowerCase(scheme) == "rtp";
    if (!url.rtp && lowerCase(scheme) != "udp")
        refuse(text, fmt::format("unknown scheme '{}'; write {}", scheme, kForm));
    return text.substr(colon + 3);
}

// Names of hosts (RFC 1123; the underscore is used all the same). What ends in a number is a
// mistyped address: the system would read "10.1" as 10.0.0.1, and hexadecimal numbers, too.
bool isHostName(std::string_view text) {
    const auto isDigit = [](char c) { return c >= '0' && c <= '9'; };
    const auto isFitting = [&](char c) {
        return isDigit(c) || (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || c == '-' ||
               c == '_' || c == '.';
    };
    if (text.empty() || text.size() > kLongestName || text.front() == '-' || text.front() == '.' ||
        !std::all_of(text.begin(), text.end(), isFitting))
        return false;
    if (text.ends_with('.'))  // the name is complete
        text.remove_suffix(1);
    const std::string_view last = text.substr(text.rfind('.') + 1);
    return !std::all_of(last.begin(), last.end(), isDigit) && !last.starts_with("0x") &&
           !last.starts_with("0X");
}

std::string_view withoutBrackets(std::string_view host) {
    const bool bracketed = host.size() > 2 && host.front() == '[' && host.back() == ']';
    return bracketed ? host.substr(1, host.size() - 2) : host;
}

void parseSource(std::string_view text, StreamUrl& url) {
    const std::string_view value = withoutBrackets(text);
    if (!url.source.empty())
        refuse(url.text, "a group is received from one source only");
    if (value.find(',') != std::string_view::npos)
        refuse(url.text, "only one source can be named");
    const auto kind = classifyAddress(value);
    url.sourceIsName = !kind && isHostName(value);
    if (!url.sourceIsName &&
        (!kind || kind->multicast || kind->any || value.find('%') != std::string_view::npos))
        refuse(url.text,
               fmt::format("source '{}' is neither the address nor the name of a sender", value));
    url.source = lowerCase(value);
}

// "HOST:PORT", the host perhaps in brackets.
void parseHostAndPort(std::string_view text, StreamUrl& url) {
    const bool bracketed = text.starts_with('[');
    const size_t bracket = bracketed ? text.find(']') : std::string_view::npos;
    if (bracketed && bracket == std::string_view::npos)
        refuse(url.text, "']' is missing behind the IPv6 address");
    const size_t colon = bracketed ? bracket + 1 : text.rfind(':');
    if (colon >= text.size() || text[colon] != ':')
        refuse(url.text, fmt::format("the port is missing; write {}", kForm));

    const std::string_view host = bracketed ? text.substr(1, bracket - 1) : text.substr(0, colon);
    if (!bracketed && host.find(':') != std::string_view::npos)
        refuse(url.text, "an IPv6 address stands in brackets: udp://[::1]:5000");
    const auto port = parseNumber<uint16_t>(text.substr(colon + 1), UINT16_MAX);
    if (!port || *port == 0)
        refuse(url.text,
               fmt::format("'{}' is no port; a port is 1 to 65535", text.substr(colon + 1)));
    url.port = *port;

    const auto kind = classifyAddress(host);
    if (host.empty() && !bracketed) {
        setHost(url, "0.0.0.0");
    } else if (!bracketed && !kind && isHostName(host)) {
        url.hostIsName = true;
        url.host = lowerCase(host);
    } else if (!kind || kind->ipv6 != bracketed) {
        refuse(url.text, fmt::format("'{}' is neither an address nor a name; write 239.1.1.1, "
                                     "[ff15::1] or encoder7",
                                     host));
    } else {
        setHost(url, host);
    }
}

void parseAuthority(std::string_view authority, StreamUrl& url) {
    const size_t at = authority.find('@');
    if (at != std::string_view::npos && at > 0)
        parseSource(authority.substr(0, at), url);
    parseHostAndPort(authority.substr(at == std::string_view::npos ? 0 : at + 1), url);
}

void parseLocalAddress(std::string_view text, StreamUrl& url) {
    const std::string_view value = withoutBrackets(text);
    const auto kind = classifyAddress(value);
    if (!kind || kind->multicast)
        refuse(url.text, fmt::format("localaddr '{}' is no numeric unicast address; iface=NAME "
                                     "names an interface",
                                     value));
    url.localAddress = value;
}

void parseInterface(std::string_view value, StreamUrl& url) {
    if (value.empty() || value.size() >= IF_NAMESIZE || value.find('/') != std::string_view::npos)
        refuse(url.text, fmt::format("iface '{}' is no name of an interface", value));
    url.interface = value;
}

bool parseFec(std::string_view item, const StreamUrl& url) {
    if (item != "fec")
        refuse(url.text, "'fec' has no value");
    if (url.port > UINT16_MAX - static_cast<uint16_t>(FecPort::kRows))
        refuse(url.text, "FEC comes in two and four ports above that of the stream");
    return true;
}

template <typename Number>
Number parseOption(std::string_view key, std::string_view value, unsigned int largest,
                   const StreamUrl& url) {
    const auto number = parseNumber<Number>(value, largest);
    if (!number)
        refuse(url.text, fmt::format("{} '{}' is not 0 to {}", key, value, largest));
    return *number;
}

// What other programs' URLs may hold. Without advice, an option is accepted and has no effect,
// since the module already does what it is for.
struct ForeignOption {
    std::string_view key;
    std::string_view advice;
};
constexpr ForeignOption kForeignOptions[] = {
    {"buffer_size", ""},
    {"connect", ""},
    {"fifo_size", ""},
    {"overrun_nonfatal", ""},
    {"reuse", ""},
    {"reuse_addr", ""},
    {"bitrate", "write --bitrate RATE"},
    {"block", "name the sender that is wanted, by source=ADDRESS"},
    {"burst_bits", "datagrams are paced evenly; leave it out"},
    {"interface", "write iface=NAME"},
    {"localport", "the system chooses the port to send from; leave it out"},
    {"localrtcpport", "there is no RTCP; leave it out"},
    {"localrtpport", "the port behind the host is the one to listen on; leave it out"},
    {"miface", "write iface=NAME"},
    {"multicast-iface", "write iface=NAME"},
    {"multicast-source", "write source=ADDRESS"},
    {"rtcp_port", "there is no RTCP; leave it out"},
    {"rtcpport", "there is no RTCP; leave it out"},
    {"timeout", "'receive' has --idle-timeout SECONDS"},
    {"tos", "write dscp=N, a fourth of it"},
    {"write_to_source", "write where to send to as HOST:PORT"},
};

void parseForeignOption(std::string_view key, std::string_view value, const StreamUrl& url) {
    if (key == "pkt_size") {
        if (value != "1316" && value != "1428")
            refuse(url.text, fmt::format("pkt_size '{}': a datagram holds seven packets, so 1316 "
                                         "bytes, or 1428; leave it out",
                                         value));
        return;
    }
    const auto* const known = std::find_if(std::begin(kForeignOptions), std::end(kForeignOptions),
                                           [key](const auto& other) { return other.key == key; });
    if (known == std::end(kForeignOptions))
        refuse(url.text, fmt::format("unknown option '{}'; accepted are ttl=0..255, dscp=0..63, "
                                     "source=HOST, iface=NAME, localaddr=ADDRESS, "
                                     "reorder=0..1000 and fec",
                                     key));
    if (!known->advice.empty())
        refuse(url.text, fmt::format("'{}' is not accepted; {}", key, known->advice));
}

void parseQuery(std::string_view query, StreamUrl& url) {
    constexpr unsigned int kLargestDscp = 63;
    while (!query.empty()) {
        const std::string_view item = query.substr(0, query.find('&'));
        query.remove_prefix(std::min(query.size(), item.size() + 1));
        const size_t equals = item.find('=');
        const std::string_view key = item.substr(0, equals);
        const std::string_view value =
            equals == std::string_view::npos ? std::string_view() : item.substr(equals + 1);
        if (key == "ttl")
            url.ttl = parseOption<uint8_t>(key, value, UINT8_MAX, url);
        else if (key == "dscp")
            url.dscp = parseOption<uint8_t>(key, value, kLargestDscp, url);
        else if (key == "source" || key == "sources")
            parseSource(value, url);
        else if (key == "iface")
            parseInterface(value, url);
        else if (key == "localaddr")
            parseLocalAddress(value, url);
        else if (key == "reorder")
            url.reorder_ms = parseOption<uint16_t>(key, value, kLongestReorder_ms, url);
        else if (key == "fec")
            url.fec = parseFec(item, url);
        else
            parseForeignOption(key, value, url);
    }
}

void store(char (&field)[QXV_RTP_ADDRESS_SIZE], std::string_view address) {
    // What has been parsed is far shorter than the field, which is zero already.
    std::memcpy(field, address.data(), std::min(address.size(), sizeof field - 1));
}

RtpChannelConfig commonConfig(const StreamUrl& url, std::string_view local) {
    RtpChannelConfig config{};
    store(config.LocalAddress, local.empty() ? (url.ipv6 ? "::" : "0.0.0.0") : local);
    const std::string source = url.source.empty() ? "" : url.source + '@';
    const std::string mark = url.dscp ? fmt::format("?dscp={}", *url.dscp) : "";
    store(config.RemoteAddress, source + url.host + mark);
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

void setHost(StreamUrl& url, std::string_view address) {
    const auto kind = classifyAddress(address);
    url.host = address;
    url.hostIsName = false;
    url.ipv6 = kind && kind->ipv6;
    url.multicast = kind && kind->multicast;
    url.anyHost = kind && kind->any;
}

void checkParts(const StreamUrl& url) {
    if ((url.reorder_ms || url.fec) && !url.rtp)
        refuse(url.text, "only RTP has numbers by which it can be repaired; write rtp://");
    if (url.fec && url.reorder_ms == 0)
        refuse(url.text, "what FEC restores has to be put in order; leave reorder=0 out");
    if (!url.interface.empty() && !url.localAddress.empty())
        refuse(url.text, "iface and localaddr both name the interface; write one of them");
    if (url.hostIsName)
        return;
    const auto check = [&url](const char* what, const std::string& address) {
        const auto kind = classifyAddress(address);
        if (kind && kind->ipv6 != url.ipv6)
            refuse(url.text, fmt::format("{} '{}' and host are not both {}", what, address,
                                         url.ipv6 ? "IPv6" : "IPv4"));
    };
    check("localaddr", url.localAddress);
    check("source", url.source);
    if (!url.source.empty() && !url.multicast)
        refuse(url.text, "only a group can be received from one source");
}

StreamUrl parseStreamUrl(std::string_view text) {
    StreamUrl url;
    url.text = text;
    if (nextPath(text) != std::string_view::npos)
        refuse(text, "one URL is accepted here; 'relay' and 'receive' take in several paths");
    const std::string_view rest = takeScheme(text, url);
    const size_t question = rest.find('?');
    std::string_view authority = rest.substr(0, question);
    if (authority.ends_with('/'))
        authority.remove_suffix(1);
    parseAuthority(authority, url);
    if (question != std::string_view::npos)
        parseQuery(rest.substr(question + 1), url);
    checkParts(url);
    return url;
}

std::vector<StreamUrl> parsePaths(std::string_view text) {
    std::vector<StreamUrl> paths;
    for (std::string_view rest = text; !rest.empty();) {
        const size_t plus = nextPath(rest);
        paths.push_back(parseStreamUrl(rest.substr(0, plus)));
        checkSource(paths.back());
        rest.remove_prefix(plus == std::string_view::npos ? rest.size() : plus + 1);
    }
    if (paths.empty())
        parseStreamUrl(text);  // says what is wrong
    for (const StreamUrl& path : paths)
        if (paths.size() > 1 && !path.rtp)
            refuse(text, "only RTP has numbers by which several paths can be merged; write rtp://");
    if (paths.size() > kMostPaths)
        refuse(text, fmt::format("a stream comes in on {} paths at most", kMostPaths));
    if (paths.size() > 1 && !isRepaired(paths))
        refuse(text, "several paths cannot be merged with reorder=0");
    return paths;
}

bool isRepaired(const std::vector<StreamUrl>& paths) {
    return paths.front().rtp && reorderWindow(paths).count() > 0;
}

std::chrono::milliseconds reorderWindow(const std::vector<StreamUrl>& paths) {
    std::optional<uint16_t> window_ms;
    for (const StreamUrl& path : paths)
        if (path.reorder_ms)
            window_ms = std::max(window_ms.value_or(0), *path.reorder_ms);
    return std::chrono::milliseconds(window_ms.value_or(kReorder_ms));
}

std::chrono::milliseconds longestWait(const std::vector<StreamUrl>& paths) {
    const bool restored =
        std::any_of(paths.begin(), paths.end(), [](const StreamUrl& path) { return path.fec; });
    return restored ? std::chrono::milliseconds(kLongestReorder_ms) : reorderWindow(paths);
}

StreamUrl fecUrl(const StreamUrl& url, FecPort port) {
    StreamUrl fec = url;
    fec.port = static_cast<uint16_t>(url.port + static_cast<uint16_t>(port));
    fec.text = fmt::format("the FEC of {} at port {}", url.text, fec.port);
    return fec;
}

void checkDestination(const StreamUrl& url) {
    if (url.reorder_ms || url.fec)
        refuse(url.text, "'reorder' and 'fec' are for what comes in");
    if (url.anyHost)
        refuse(url.text, "a destination is needed to send to; write udp://127.0.0.1:5000");
}

void checkSource(const StreamUrl& url) {
    const bool unicast = !url.hostIsName && !url.multicast && !url.anyHost;
    if (unicast && !(url.localAddress.empty() && url.interface.empty()))
        refuse(url.text, fmt::format("{} goes with a group; here the host is the address to listen "
                                     "on",
                                     url.interface.empty() ? "localaddr" : "iface"));
}

RtpChannelConfig sendConfig(const StreamUrl& given) {
    checkDestination(given);
    const StreamUrl url = lookUp(given);
    checkDestination(url);
    RtpChannelConfig config = commonConfig(url, url.localAddress);
    config.Rtp = url.rtp ? 1 : 0;
    return config;
}

RtpChannelConfig receiveConfig(const StreamUrl& given) {
    checkSource(given);
    const StreamUrl url = lookUp(given);
    checkSource(url);
    const bool hostIsLocal = !url.multicast && url.localAddress.empty();
    RtpChannelConfig config = commonConfig(url, hostIsLocal ? url.host : url.localAddress);
    config.Rtp = 1;
    return config;
}

Failure noSocket(const StreamUrl& url) {
    return Failure(fmt::format("no socket could be opened for {}; {}", url.text,
                               url.multicast
                                   ? "is there an interface for the group? localaddr= names one"
                                   : "is the port in use, or the address not this machine's?"));
}
