#include "media/HostNames.h"

#include <arpa/inet.h>
#include <fmt/format.h>
#include <ifaddrs.h>
#include <net/if.h>
#include <netdb.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <memory>
#include <thread>
#include <utility>

#include "base/Errors.h"

namespace {

[[noreturn]] void fail(const StreamUrl& url, const std::string& why) {
    throw Failure(fmt::format("'{}': {}", url.text, why));
}

std::string numeric(const sockaddr& address, socklen_t length) {
    char text[NI_MAXHOST] = "";
    getnameinfo(&address, length, text, sizeof text, nullptr, 0, NI_NUMERICHOST);
    return text;
}

std::string findHost(const std::string& name, int family, const StreamUrl& url) {
    addrinfo hints{};
    hints.ai_family = family;
    hints.ai_socktype = SOCK_DGRAM;
    addrinfo* list = nullptr;
    const int error = getaddrinfo(name.c_str(), nullptr, &hints, &list);
    const std::string reason = error == EAI_SYSTEM ? std::strerror(errno)
                               : error != 0        ? gai_strerror(error)
                                                   : "";
    const std::unique_ptr<addrinfo, decltype(&freeaddrinfo)> owner(list, freeaddrinfo);
    if (error != 0)
        fail(url, fmt::format("no {}address is found for '{}': {}",
                              family == AF_INET    ? "IPv4 "
                              : family == AF_INET6 ? "IPv6 "
                                                   : "",
                              name, reason));
    return numeric(*list->ai_addr, list->ai_addrlen);
}

int familyOf(bool ipv6) {
    return ipv6 ? AF_INET6 : AF_INET;
}

// The family that the URL's other parts leave to its host.
int familyOfHost(const StreamUrl& url) {
    for (const std::string* address : {&url.localAddress, &url.source})
        if (const auto kind = classifyAddress(*address))
            return familyOf(kind->ipv6);
    return AF_UNSPEC;
}

// The first address of the interface; of IPv6 addresses, one that is not confined to the link.
std::string findInterface(const StreamUrl& url) {
    if (if_nametoindex(url.interface.c_str()) == 0)
        fail(url, fmt::format("there is no interface '{}'", url.interface));
    ifaddrs* list = nullptr;
    if (getifaddrs(&list) != 0)
        fail(url, fmt::format("the interfaces cannot be listed: {}", std::strerror(errno)));
    const std::unique_ptr<ifaddrs, decltype(&freeifaddrs)> owner(list, freeifaddrs);
    std::string found;
    for (const ifaddrs* next = list; next != nullptr; next = next->ifa_next) {
        if (next->ifa_addr == nullptr || next->ifa_addr->sa_family != familyOf(url.ipv6) ||
            url.interface != next->ifa_name)
            continue;
        const std::string address =
            numeric(*next->ifa_addr, url.ipv6 ? sizeof(sockaddr_in6) : sizeof(sockaddr_in));
        if (found.empty() ||
            (found.find('%') != std::string::npos && address.find('%') == std::string::npos))
            found = address;
    }
    if (found.empty())
        fail(url, fmt::format("the interface '{}' has no {} address", url.interface,
                              url.ipv6 ? "IPv6" : "IPv4"));
    return found;
}

// Such an address means nothing without a zone.
bool isLinkLocal(const std::string& host) {
    in6_addr address{};
    return inet_pton(AF_INET6, host.c_str(), &address) == 1 && IN6_IS_ADDR_LINKLOCAL(&address) != 0;
}

void setInterface(StreamUrl& url) {
    const size_t zone = url.host.find('%');
    if (zone != std::string::npos) {
        if (url.host.substr(zone + 1) != url.interface)
            throw UsageError(fmt::format("'{}': the zone of the host and iface differ", url.text));
    } else if ((url.ipv6 && url.multicast) || isLinkLocal(url.host)) {
        if (if_nametoindex(url.interface.c_str()) == 0)
            fail(url, fmt::format("there is no interface '{}'", url.interface));
        url.host += '%' + url.interface;
    } else {
        url.localAddress = findInterface(url);
    }
    url.interface.clear();
}

}  // namespace

StreamUrl lookUp(const StreamUrl& given) {
    StreamUrl url = given;
    if (url.hostIsName)
        setHost(url, findHost(url.host, familyOfHost(url), url));
    if (url.sourceIsName) {
        url.source = findHost(url.source, familyOf(url.ipv6), url);
        url.sourceIsName = false;
    }
    checkParts(url);
    if (!url.interface.empty())
        setInterface(url);
    return url;
}

std::optional<StreamUrl> LookUp::poll(const StreamUrl& url) {
    if (!url.hostIsName && !url.sourceIsName)
        return lookUp(url);
    if (!answer_.valid()) {
        std::packaged_task<StreamUrl()> task([url] { return lookUp(url); });
        auto answer = task.get_future();
        std::thread(std::move(task)).detach();
        answer_ = std::move(answer);  // not before there is a thread that gives it
    }
    if (answer_.wait_for(std::chrono::seconds(0)) != std::future_status::ready)
        return std::nullopt;
    return answer_.get();
}
