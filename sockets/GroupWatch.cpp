#include "GroupWatch.h"

#include <linux/rtnetlink.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <new>

#include "ReceiveLoop.h"
#include "Threads.h"

namespace zaqsockets {

namespace {

constexpr std::chrono::milliseconds kSettle{200};
constexpr std::chrono::milliseconds kPause{1000};
constexpr std::chrono::milliseconds kLongestRest{2000};
constexpr int kLooks = 5;

GroupWatch* g_Watch = nullptr;  // guarded by g_Lock

// The network namespace of a socket. Before Linux 5.14 they can not be told apart.
uint64_t NetworkOf(const Descriptor& socket) {
#ifndef SO_NETNS_COOKIE
#define SO_NETNS_COOKIE 71  // missing in older headers
#endif
    uint64_t cookie = 0;
    socklen_t size = sizeof(cookie);
    getsockopt(socket.Number(), SOL_SOCKET, SO_NETNS_COOKIE, &cookie, &size);
    return cookie;
}

bool IsShortage(int error) {
    return error == EMFILE || error == ENFILE || error == ENOMEM || error == ENOBUFS;
}

// A descriptor of the group's socket that stays valid, unless the socket is destroyed already.
Descriptor Borrow(const Group& group) {
    const std::lock_guard lock(g_Lock);
    return group.Socket != nullptr ? group.Socket->File.Duplicate() : Descriptor();
}

}  // namespace

void LookSchedule::Notice() {
    if (m_Looks != kLooks)
        m_Due = Clock::now() + std::max<Clock::duration>(kSettle, m_Rest);
    m_Looks = kLooks;
}

void LookSchedule::Repeat() {
    m_Looks = std::max(m_Looks, 1);
}

bool LookSchedule::IsDue() {
    if (!m_Due || Clock::now() < *m_Due)
        return false;
    m_Began = Clock::now();
    m_Due.reset();
    --m_Looks;
    return true;
}

void LookSchedule::Finish() {
    constexpr int kShare = 10;  // one part of the time
    const Clock::time_point now = Clock::now();
    m_Rest = std::min<Clock::duration>((now - m_Began) * kShare, kLongestRest);
    if (m_Looks > 0)
        m_Due = now + std::max<Clock::duration>(kPause, m_Rest);
}

int LookSchedule::Timeout_ms() const {
    if (!m_Due)
        return -1;
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(*m_Due - Clock::now());
    return std::max(static_cast<int>(left.count()), 0);
}

bool GroupWatch::Add(const std::shared_ptr<Group>& group, ReceiveSocket& socket) {
    if (g_Watch == nullptr && !Start())
        return false;
    if (g_Watch == nullptr || g_Watch->m_Network != NetworkOf(socket.File))
        return true;
    g_Watch->m_Groups.push_back(group);
    group->Socket = &socket;
    return true;
}

// Leaves g_Watch null, with success, where rtnetlink is refused.
bool GroupWatch::Start() {
    auto watch = std::make_unique<GroupWatch>();
    watch->m_Messages = OpenNetlink(RTMGRP_LINK | RTMGRP_IPV4_IFADDR | RTMGRP_IPV6_IFADDR);
    if (!watch->m_Messages)
        return !IsShortage(errno);
    watch->m_Wakeup = Descriptor(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
    watch->m_Network = NetworkOf(watch->m_Messages);
    if (!watch->m_Wakeup || !StartThread(watch->m_Thread, &GroupWatch::Run, watch.get()))
        return false;
    g_Watch = watch.release();  // freed by whoever joins the thread
    return true;
}

void GroupWatch::Remove(Group& group) {
    group.IsDestroyed.store(true, std::memory_order_relaxed);  // the lock orders what matters
    if (group.Socket == nullptr)
        return;
    group.Socket = nullptr;
    std::erase_if(g_Watch->m_Groups, [&](const auto& other) { return other.get() == &group; });
}

void GroupWatch::EndIfUnused() {
    std::unique_ptr<GroupWatch> watch;
    {
        const std::lock_guard lock(g_Lock);
        if (g_Watch == nullptr || !g_Watch->m_Groups.empty())
            return;
        watch.reset(std::exchange(g_Watch, nullptr));
    }
    watch->m_Stop.store(true, std::memory_order_relaxed);  // the thread's end orders the rest
    watch->Wake();
    pthread_join(watch->m_Thread, nullptr);
}

void GroupWatch::Forget() {
    g_Watch = nullptr;
}

void GroupWatch::Wake() const {
    const uint64_t one = 1;
    [[maybe_unused]] const ssize_t written = write(m_Wakeup.Number(), &one, sizeof(one));
}

void* GroupWatch::Run(void* watch) {
    pthread_setname_np(pthread_self(), "zaq-watch");
    static_cast<GroupWatch*>(watch)->Run();
    return nullptr;
}

void GroupWatch::Run() {
    constexpr useconds_t kErrorPause_us = 10000;
    pollfd files[] = {{m_Messages.Number(), POLLIN, 0}, {m_Wakeup.Number(), POLLIN, 0}};
    while (!m_Stop.load(std::memory_order_relaxed)) {  // as where it is set
        if (poll(files, std::size(files), m_Schedule.Timeout_ms()) < 0)
            usleep(kErrorPause_us);  // an error that stays must not turn this into a busy loop
        try {
            if (files[0].revents != 0)
                TakeMessages();
            if (m_Schedule.IsDue())
                Look();
        } catch (const std::bad_alloc&) {
            m_Schedule.Repeat();
            m_Schedule.Finish();
        }
    }
}

void GroupWatch::TakeMessages() {
    // But for interfaces that are gone it does not matter what the messages say, and the kernel
    // drops what has no room: every one, and ENOBUFS for the dropped ones, says that something has
    // changed.
    constexpr int kMost = 1000;  // the rest waits for the next time
    struct {
        nlmsghdr Header;
        ifinfomsg Interface;
    } message;
    m_Schedule.Notice();
    for (int count = 0; count < kMost; ++count) {
        const ssize_t size = recv(m_Messages.Number(), &message, sizeof(message), 0);
        if (size < 0 && errno != ENOBUFS)
            break;
        // An interface that leaves a bridge is reported with a family.
        if (size == sizeof(message) && message.Header.nlmsg_type == RTM_DELLINK &&
            message.Interface.ifi_family == AF_UNSPEC)
            Leave(static_cast<uint32_t>(message.Interface.ifi_index));
    }
}

void GroupWatch::Leave(uint32_t interface) {
    for (const auto& group : Groups())
        if (std::ranges::find(group->Joined, interface) != group->Joined.end())
            if (const Descriptor socket = Borrow(*group); socket)
                LeaveInterface(*group, socket, interface);
}

void GroupWatch::Look() {
    InterfaceList interfaces;
    bool joined = true;
    const auto groups = Groups();
    for (const auto& group : groups) {
        const Descriptor socket = Borrow(*group);
        Descriptor renewed;
        if (!socket || !RenewMemberships(*group, socket, interfaces, renewed))
            joined = false;
        if (renewed && !Replace(*group, renewed, socket)) {
            group->Joined.clear();
            joined = false;
        }
    }
    if (!joined)
        m_Schedule.Repeat();
    m_Schedule.Finish();
    if (!m_Schedule.IsPending())
        for (const auto& group : groups)
            group->Follows = false;
}

// The number stays, so that the receive thread notices nothing. As long as the caller has the old
// socket, its memberships do not end here, where that would hold up others.
bool GroupWatch::Replace(Group& group, const Descriptor& renewed, const Descriptor& old) {
    const std::lock_guard lock(g_Lock);
    if (group.Socket == nullptr || ReceiveLoop::Exchange(*group.Socket, renewed))
        return true;
    ReceiveLoop::Exchange(*group.Socket, old);
    return false;
}

std::vector<std::shared_ptr<Group>> GroupWatch::Groups() const {
    const std::lock_guard lock(g_Lock);
    return m_Groups;
}

}  // namespace zaqsockets
