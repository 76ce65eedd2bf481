#include "config/ConfigRules.h"

#include <arpa/inet.h>
#include <fmt/format.h>

#include <algorithm>
#include <cstring>

#include "base/Errors.h"
#include "base/SafeText.h"
#include "config/ConfigFile.h"

namespace {

constexpr size_t kMostWatched = 64;

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

// The address that a socket for receiving from a unicast URL is bound to; an interface stands for
// its own.
std::string listensOn(const StreamUrl& url) {
    if (!url.interface.empty())
        return url.interface;
    return canonical(url.localAddress.empty() ? url.host : url.localAddress);
}

bool isAny(const std::string& address) {
    const auto kind = classifyAddress(address);
    return kind && kind->any;
}

bool isLoopback(const std::string& address) {
    return address.starts_with("127.") || address == "::1";
}

// A '%' without the rest of its conversion, which would vanish.
bool endsInConversion(const std::string& pattern) {
    for (size_t at = 0; (at = pattern.find('%', at)) != std::string::npos; ++at) {
        at = pattern.find_first_not_of("EO", at + 1);
        if (at == std::string::npos)
            return true;
    }
    return false;
}

bool namesInterface(const StreamUrl& url) {
    return !url.localAddress.empty() || !url.interface.empty();
}

bool sameInterface(const StreamUrl& a, const StreamUrl& b) {
    return canonical(a.localAddress) == canonical(b.localAddress) && a.interface == b.interface;
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

// Does what is sent to `to` come in from `from`? Between two interfaces that are both named, a
// group may well keep its address; and one source of a group is hardly this machine. What is behind
// a name does not show before it is looked up.
bool feeds(const StreamUrl& to, const StreamUrl& from) {
    if (!samePort(to, from))
        return false;
    if (!from.multicast) {
        const std::string local = listensOn(from);
        return local == canonical(to.host) || (isAny(local) && isLoopback(canonical(to.host)));
    }
    const bool anyInterface = !namesInterface(to) || !namesInterface(from);
    return canonical(to.host) == canonical(from.host) && from.source.empty() &&
           (anyInterface || sameInterface(to, from));
}

ConfigPlace announcingOption(const Announcing& announcing) {
    return {0, 0, announcing.name.empty() ? "--sdp" : "--announce"};
}

ConfigPlace argument(const char* name, size_t index) {
    return {0, 0, fmt::format("{} {}", name, index + 1)};
}

StreamUrl checkedUrl(const std::string& text, void (*check)(const StreamUrl&)) {
    StreamUrl url = parseStreamUrl(text);
    check(url);
    return url;
}

}  // namespace

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

void ConfigProblems::throwFirst() const {
    if (!found_.empty())
        throw UsageError(fmt::format("{}: {}", found_.front().first.field, found_.front().second));
}

std::string fullUrl(const StreamUrl& url, bool destination) {
    const std::string host = canonical(url.host);
    std::string text = fmt::format("{}://{}{}{}:{}", url.rtp ? "rtp" : "udp", url.ipv6 ? "[" : "",
                                   host, url.ipv6 ? "]" : "", url.port);
    char separator = '?';
    const auto add = [&](const char* key, const std::string& value) {
        text += fmt::format("{}{}={}", std::exchange(separator, '&'), key, value);
    };
    if (destination && (url.multicast || url.hostIsName))
        add("ttl", std::to_string(url.ttl));
    if (destination && url.dscp)
        add("dscp", std::to_string(*url.dscp));
    if (!destination && !url.source.empty())
        add("source", canonical(url.source));
    if (!url.interface.empty())
        add("iface", url.interface);
    if (!url.localAddress.empty())
        add("localaddr", canonical(url.localAddress));
    if (!destination && url.reorder_ms)
        add("reorder", std::to_string(*url.reorder_ms));
    if (!destination && url.fec)
        text += fmt::format("{}fec", separator);
    return text;
}

std::string fullUrl(const std::vector<StreamUrl>& paths) {
    std::string urls;
    for (const StreamUrl& path : paths)
        urls.append(urls.empty() ? "" : "+").append(fullUrl(path, false));
    return urls;
}

std::string webhookOf(const std::string& text) {
    const size_t host = text.starts_with("http://")    ? std::strlen("http://")
                        : text.starts_with("https://") ? std::strlen("https://")
                                                       : text.size();
    const bool plain =
        std::all_of(text.begin(), text.end(), [](char c) { return c > ' ' && c < 0x7F; });
    if (host == text.size() || text[host] == '/' || !plain)
        throw UsageError(
            fmt::format("'{}' is no URL to post to, like https://alarms.example.org/tv", text));
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
    if (endsInConversion(path))
        problems_.add(place,
                      fmt::format("'{}' ends within a conversion; %% is a percent sign", path));
    if (path.empty() || path == "/dev/null")
        return;
    const auto [first, isNew] = outputs_.emplace(path, place.field);
    if (!isNew)
        problems_.add(place,
                      fmt::format("{} is written by {} already",
                                  path == "-" ? "standard output" : fmt::format("'{}'", path),
                                  first->second));
}

void ConfigRules::repeatInput(const std::string& path, const ConfigPlace& place) {
    if (path == "-")
        problems_.add(place, "standard input cannot be repeated");
}

void ConfigRules::followInput(const std::string& path, const ConfigPlace& place) {
    if (path == "-")
        problems_.add(place, "standard input ends when its writer ends it");
}

void ConfigRules::rotateOutput(const std::string& path, const ConfigPlace& place) {
    if (path == "-")
        problems_.add(place, "standard output cannot be followed by a new file");
}

void ConfigRules::announceOutput(const Announcing& announcing, const Destinations& destinations,
                                 const ConfigPlace& place) {
    constexpr size_t kLongestName = 200;  // a description has to fit a datagram
    if (announcing.name.size() > kLongestName)
        problems_.add(place, fmt::format("a name of {} bytes at most is accepted", kLongestName));
    if (!destinations.rtp && announcing != Announcing())
        problems_.add(place, "only a stream that is sent to rtp:// can be described and announced");
    else if (!destinations.groups && !announcing.name.empty())
        problems_.add(place, "only what is sent to a group is announced; 'sdp' describes others");
}

void ConfigRules::delayOutput(const Shaping& shaping, bool rtp,
                              const std::optional<uint32_t>& bitrate_bps,
                              const ConfigPlace& place) {
    if (shaping.delay && !isMadeConstant(shaping, rtp, bitrate_bps))
        problems_.add(place, "has no effect without a constant rate ('cbr', or rtp://)");
}

// A service, or a command, is one process, which has so many channels in a direction.
bool ConfigRules::haveChannel(const ConfigPlace& place, std::string_view direction) {
    const std::string section = place.field.substr(0, place.field.find_first_of("[ "));
    const size_t count = ++channels_[fmt::format("{} {}", section, direction)];
    if (count == QXV_RTP_CHANNELS + 1)
        problems_.add(place,
                      fmt::format("there are only {} channels to {}", QXV_RTP_CHANNELS, direction));
    return count <= QXV_RTP_CHANNELS;
}

void ConfigRules::addRecorded(const std::vector<StreamUrl>& paths, const ConfigPlace& place) {
    if (haveChannel(place, "receive"))
        addSource(paths, place);
}

void ConfigRules::failOver(const Failover& failover, const std::vector<ConfigPlace>& places) {
    constexpr size_t kMostOthers = 4;
    if (failover.others.size() > kMostOthers)
        problems_.add(places[kMostOthers], fmt::format("{} inputs are the most", kMostOthers));
    for (size_t i = 0; i < failover.others.size(); ++i)
        if (!isStreamUrl(failover.others[i]) && i + 1 < failover.others.size())
            problems_.add(places[i], fmt::format("'{}' is a file, which is the last resort: no "
                                                 "other input can follow it",
                                                 failover.others[i]));
}

size_t ConfigRules::addRelay() {
    relays_.emplace_back();
    return relays_.size() - 1;
}

void ConfigRules::addSource(const std::vector<StreamUrl>& paths, const ConfigPlace& place,
                            std::optional<size_t> relay) {
    for (const StreamUrl& path : paths) {
        if (relay)
            relays_[*relay].push_back(sources_.size());
        addReceiver(path, place);
        if (path.fec)
            for (const FecPort port : {FecPort::kColumns, FecPort::kRows})
                addReceiver(fecUrl(path, port), place);
    }
}

void ConfigRules::addReceiver(const StreamUrl& url, const ConfigPlace& place) {
    for (const Source& other : sources_)
        if (collide(url, other.url)) {
            problems_.add(place, fmt::format("'{}': the port is used by {} already", url.text,
                                             other.place.field));
            break;
        }
    sources_.push_back({url, place});
}

void ConfigRules::addWatched(const StreamUrl& url, const std::string& name,
                             const ConfigPlace& place) {
    const std::string& shown = name.empty() ? url.text : name;
    if (std::find(watched_.begin(), watched_.end(), shown) != watched_.end())
        problems_.add(place,
                      fmt::format("'{}' is there already; a name tells streams apart", shown));
    watched_.push_back(shown);
    if (watched_.size() == kMostWatched + 1)
        problems_.add(place, fmt::format("a process watches {} streams at most", kMostWatched));
    if (watched_.size() <= kMostWatched)
        addReceiver(url, place);
}

void ConfigRules::addDestination(const StreamUrl& url, const ConfigPlace& place,
                                 std::optional<size_t> relay) {
    if (!haveChannel(place, "send"))
        return;
    for (const Destination& other : destinations_)
        if (samePort(url, other.url) && canonical(url.host) == canonical(other.url.host) &&
            sameInterface(url, other.url)) {
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
        for (const size_t source : relays_[next])
            if (feeds(to.url, sources_[source].url) && reaches(next, goal, seen))
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
                                                "{}, without end",
                                                to.url.text,
                                                sources_[relays_[*to.relay].front()].place.field));
    }
}

void checkArguments(const std::vector<SendJob>& jobs) {
    ConfigProblems problems;
    ConfigRules rules(problems);
    Destinations destinations;
    for (size_t i = 0; i < jobs.size(); ++i) {
        rules.addInput(jobs[i].input, argument("INPUT", i));
        if (jobs[i].loop)
            rules.repeatInput(jobs[i].input, {0, 0, "--loop"});
        if (jobs[i].follow)
            rules.followInput(jobs[i].input, {0, 0, "--follow"});
        const StreamUrl url = checkedUrl(jobs[i].url, checkDestination);
        destinations.add(url);
        rules.addDestination(url, argument("URL", i));
    }
    for (const SendJob& job : jobs) {
        rules.delayOutput(job.shaping, destinations.rtp, job.bitrate_bps, {0, 0, "--delay"});
        rules.announceOutput(job.announcing, destinations, announcingOption(job.announcing));
    }
    problems.throwFirst();
}

void checkArguments(const std::vector<ReceiveJob>& jobs) {
    ConfigProblems problems;
    ConfigRules rules(problems);
    for (size_t i = 0; i < jobs.size(); ++i) {
        rules.addRecorded(parsePaths(jobs[i].url), argument("URL", i));
        rules.addOutput(jobs[i].output, argument("FILE", i));
        if (jobs[i].rotateBytes || jobs[i].rotateTime)
            rules.rotateOutput(jobs[i].output,
                               {0, 0, jobs[i].rotateBytes ? "--rotate-size" : "--rotate-time"});
    }
    problems.throwFirst();
}

void checkArguments(const RelayJob& job) {
    ConfigProblems problems;
    ConfigRules rules(problems);
    const size_t relay = rules.addRelay();
    rules.addSource(parsePaths(job.from), {0, 0, "FROM"}, relay);
    const std::vector<ConfigPlace> places(job.failover.others.size(), {0, 0, "--or"});
    for (const std::string& other : job.failover.others)
        if (isStreamUrl(other))
            rules.addSource(parsePaths(other), places.front(), relay);
    rules.failOver(job.failover, places);
    Destinations destinations;
    for (size_t i = 0; i < job.to.size(); ++i) {
        const StreamUrl url = checkedUrl(job.to[i], checkDestination);
        destinations.add(url);
        rules.addDestination(url, argument("TO", i), relay);
    }
    rules.delayOutput(job.shaping, destinations.rtp, job.bitrate_bps, {0, 0, "--delay"});
    rules.announceOutput(job.announcing, destinations, announcingOption(job.announcing));
    rules.finish();
    problems.throwFirst();
}

void checkArguments(const std::vector<MonitorJob>& jobs) {
    ConfigProblems problems;
    ConfigRules rules(problems);
    for (size_t i = 0; i < jobs.size(); ++i)
        rules.addWatched(checkedUrl(jobs[i].url, checkSource), "", argument("URL", i));
    problems.throwFirst();
}
