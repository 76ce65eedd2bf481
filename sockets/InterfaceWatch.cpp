#include "InterfaceWatch.h"

#include <linux/rtnetlink.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <utility>

namespace zaqsockets {

namespace {

constexpr std::chrono::milliseconds kSettle{200};
constexpr std::chrono::milliseconds kPause{1000};
constexpr int kLooks = 5;
constexpr std::chrono::milliseconds kLongestRest{2000};

Descriptor OpenNetlink(uint32_t groups) {
    Descriptor opened(socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC | SOCK_NONBLOCK, NETLINK_ROUTE));
    sockaddr_nl address{};
    address.nl_family = AF_NETLINK;
    address.nl_groups = groups;
    const bool bound =
        bind(opened.Number(), reinterpret_cast<sockaddr*>(&address), sizeof(address)) == 0;
    return bound ? std::move(opened) : Descriptor();
}

}  // namespace

InterfaceWatch::InterfaceWatch() {
    // The kernel gives a process's first netlink socket the process's number (netlink(7)), which other
    // code of the host may ask for by itself. So ours is never the first one.
    const Descriptor first = OpenNetlink(0);
    m_Messages = OpenNetlink(RTMGRP_LINK | RTMGRP_IPV4_IFADDR | RTMGRP_IPV6_IFADDR);
    m_Due = Clock::now();  // something may have changed since the first socket was opened
}

uint32_t InterfaceWatch::Take() {
    // Else it does not matter what the messages say, and the kernel drops what has no room: but every
    // one, and ENOBUFS for the dropped ones, says that something has changed. The rest waits for the
    // next time.
    constexpr int kMost = 1000;
    struct {
        nlmsghdr Header;
        ifinfomsg Interface;
    } message;
    int gone = 0;
    for (int count = 0; count < kMost && gone == 0; ++count) {
        const ssize_t size = recv(m_Messages.Number(), &message, sizeof(message), 0);
        if (size < 0 && errno != ENOBUFS)
            break;
        // One that leaves a bridge is reported with a family.
        if (size == sizeof(message) && message.Header.nlmsg_type == RTM_DELLINK &&
            message.Interface.ifi_family == AF_UNSPEC)
            gone = message.Interface.ifi_index;
    }
    Notice();
    return static_cast<uint32_t>(gone);
}

void InterfaceWatch::Notice() {
    if (m_Looks != kLooks)
        m_Due = Clock::now() + std::max<Clock::duration>(kSettle, m_Rest);
    m_Looks = kLooks;
}

bool InterfaceWatch::IsDue() {
    if (!m_Due || Clock::now() < *m_Due)
        return false;
    m_Began = Clock::now();
    m_Due.reset();
    --m_Looks;
    return true;
}

void InterfaceWatch::Finish() {
    constexpr int kShare = 10;  // one part of the time
    const Clock::time_point now = Clock::now();
    m_Rest = std::min<Clock::duration>((now - m_Began) * kShare, kLongestRest);
    if (m_Looks > 0)
        m_Due = now + std::max<Clock::duration>(kPause, m_Rest);
}

void InterfaceWatch::Repeat() {
    m_Looks = std::max(m_Looks, 1);
}

int InterfaceWatch::Limit(int timeout_ms) const {
    if (!m_Due)
        return timeout_ms;
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(*m_Due - Clock::now());
    const int left_ms = std::max(static_cast<int>(left.count()), 0);
    return timeout_ms < 0 ? left_ms : std::min(left_ms, timeout_ms);
}

}  // namespace zaqsockets
