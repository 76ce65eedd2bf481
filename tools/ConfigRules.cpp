#include "ConfigRules.h"

#include <arpa/inet.h>
#include <fmt/format.h>

#include <algorithm>

#include "ConfigFile.h"
#include "SafeText.h"

namespace {

// An address in its shortest form, so that equal ones are equal as text.
std::string canonical(const std::string& address) {
    const size_t percent = address.find('%');
    const std::string zone = percent == std::string::npos ? "" : address.substr(percent);
    in6_addr binary{};
    char text[INET6_ADDRSTRLEN];
    if (inet_pton(AF_INET6, address.substr(0, percent).c_str(), &binary) == 1 &&
        inet_ntop(AF_INET6, &binary, text, sizeof text) != nullptr)
        return text + zone;
    return address;
}

// The address that a socket for receiving from a unicast URL is bound to.
std::string listensOn(const StreamUrl& url) {
    return canonical(url.localAddress.empty() ? url.host : url.localAddress);
}

bool isAny(const std::string& address) {
    const auto kind = classifyAddress(address);
    return kind && kind->any;
}

bool isLoopback(const std::string& address) {
    return address.starts_with("127.") || address == "::1";
}

bool samePort(const StreamUrl& a, const StreamUrl& b) {
    return a.port == b.port && a.ipv6 == b.ipv6 && a.multicast == b.multicast;
}

// Groups may be received twice; of the others, a port has one receiver.
bool collide(const StreamUrl& a, const StreamUrl& b) {
    if (a.multicast || !samePort(a, b))
        return false;
    const std::string x = listensOn(a);
    const std::string y = listensOn(b);
    return x == y || isAny(x) || isAny(y);
}

}  // namespace

bool feeds(const StreamUrl& to, const StreamUrl& from) {
    if (!samePort(to, from))
        return false;
    if (!from.multicast) {
        const std::string local = listensOn(from);
        return local == canonical(to.host) || (isAny(local) && isLoopback(canonical(to.host)));
    }
    return canonical(to.host) == canonical(from.host) &&
           (to.localAddress.empty() || from.localAddress.empty() ||
            canonical(to.localAddress) == canonical(from.localAddress));
}

void ConfigProblems::add(const ConfigPlace& place, std::string_view what) {
    found_.emplace_back(place, what);
}

void ConfigProblems::throwIfAny() {
    if (found_.empty())
        return;
    std::stable_sort(found_.begin(), found_.end(), [](const auto& a, const auto& b) {
        return std::pair(a.first.line, a.first.column) < std::pair(b.first.line, b.first.column);
    });
    std::string all;
    for (const auto& [place, what] : found_) {
        // Strings of the file may contain anything, by escape sequences.
        if (!all.empty())
            all += '\n';
        all += printable(fmt::format("{}:{}:{}: {}{}{}", file_, place.line, place.column,
                                     place.field, place.field.empty() ? "" : ": ", what));
    }
    throw ConfigErrors(all);
}

std::string fullUrl(const StreamUrl& url, bool destination) {
    const bool hasTtl = destination && url.multicast;
    const std::string host = canonical(url.host);
    std::string text = fmt::format("{}://{}{}{}:{}", url.rtp ? "rtp" : "udp", url.ipv6 ? "[" : "",
                                   host, url.ipv6 ? "]" : "", url.port);
    if (hasTtl)
        text += fmt::format("?ttl={}", url.ttl);
    if (!url.localAddress.empty())
        text += fmt::format("{}localaddr={}", hasTtl ? '&' : '?', canonical(url.localAddress));
    return text;
}

void ConfigRules::addInput(const std::string& path, const ConfigPlace& place) {
    if (path != "-")
        return;
    const auto [first, isNew] = inputs_.emplace(path, place.field);
    if (!isNew)
        problems_.add(place, fmt::format("standard input is read by {} already", first->second));
}

void ConfigRules::addOutput(const std::string& path, const ConfigPlace& place) {
    if (path.empty() || path == "/dev/null")
        return;
    const auto [first, isNew] = outputs_.emplace(path, place.field);
    if (!isNew)
        problems_.add(place,
                      fmt::format("{} is written by {} already",
                                  path == "-" ? "standard output" : fmt::format("'{}'", path),
                                  first->second));
}

// A service is one process, which has so many channels in a direction.
bool ConfigRules::haveChannel(const ConfigPlace& place, std::string_view direction) {
    const std::string section = place.field.substr(0, place.field.find('['));
    const size_t count = ++channels_[fmt::format("{} {}", section, direction)];
    if (count == QXV_RTP_CHANNELS + 1)
        problems_.add(place,
                      fmt::format("there are only {} channels to {}", QXV_RTP_CHANNELS, direction));
    return count <= QXV_RTP_CHANNELS;
}

std::optional<size_t> ConfigRules::addSource(const StreamUrl& url, const ConfigPlace& place) {
    if (!haveChannel(place, "receive"))
        return std::nullopt;
    for (const Source& other : sources_)
        if (collide(url, other.url)) {
            problems_.add(place, fmt::format("'{}': the port is used by {} already", url.text,
                                             other.place.field));
            break;
        }
    sources_.push_back({url, place});
    return sources_.size() - 1;
}

size_t ConfigRules::addRelay(std::optional<size_t> source) {
    relays_.push_back(source);
    return relays_.size() - 1;
}

void ConfigRules::addDestination(const StreamUrl& url, const ConfigPlace& place,
                                 std::optional<size_t> relay) {
    if (!haveChannel(place, "send"))
        return;
    for (const Destination& other : destinations_)
        if (samePort(url, other.url) && canonical(url.host) == canonical(other.url.host) &&
            canonical(url.localAddress) == canonical(other.url.localAddress)) {
            problems_.add(place,
                          fmt::format("'{}': {} sends there already", url.text, other.place.field));
            break;
        }
    destinations_.push_back({url, place, relay});
}

// Does what the relay takes in come to the relay `goal`, directly or by way of others?
bool ConfigRules::reaches(size_t relay, size_t goal, std::vector<bool>& seen) const {
    if (relay == goal)
        return true;
    if (seen[relay])
        return false;
    seen[relay] = true;
    return std::any_of(destinations_.begin(), destinations_.end(), [&](const Destination& to) {
        return to.relay == relay && feedsOneThatReaches(to, goal, seen);
    });
}

bool ConfigRules::feedsOneThatReaches(const Destination& to, size_t goal,
                                      std::vector<bool>& seen) const {
    for (size_t next = 0; next < relays_.size(); ++next)
        if (relays_[next] && feeds(to.url, sources_[*relays_[next]].url) &&
            reaches(next, goal, seen))
            return true;
    return false;
}

void ConfigRules::finish() {
    for (const Destination& to : destinations_) {
        if (!to.relay)
            continue;
        std::vector<bool> seen(relays_.size());
        if (feedsOneThatReaches(to, *to.relay, seen))
            problems_.add(to.place, fmt::format("'{}': what is sent there comes back to "
                                                "relay[{}].from, without end",
                                                to.url.text, *to.relay));
    }
}
