#include "GroupWatch.h"

#include <linux/netconf.h>
#include <linux/rtnetlink.h>
#include <poll.h>
#include <pthread.h>
#include <sys/eventfd.h>
#include <sys/socket.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <iterator>
#include <new>
#include <utility>
#include <vector>

#include "ReceiveLoop.h"
#include "SocketOptions.h"
#include "Threads.h"

namespace zaqsockets {

namespace {

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

// A descriptor of the group's socket that stays valid. Empty when the socket is destroyed already.
Descriptor Borrow(const Group& group) {
    const std::lock_guard lock(g_Lock);
    return group.Socket != nullptr ? group.Socket->File.Duplicate() : Descriptor();
}

// The number stays, so that the receive thread notices nothing. As long as the caller has the old
// socket, its memberships do not end here, where that would hold up others.
bool Replace(Group& group, const Descriptor& renewed, const Descriptor& old) {
    const std::lock_guard lock(g_Lock);
    if (group.Socket == nullptr || ExchangeFile(*group.Socket, renewed))
        return true;
    ExchangeFile(*group.Socket, old);
    return false;
}

// Thread safety: it belongs to its own thread, apart from what is marked.
class Watch {
  public:
    // Fixed after the start.
    pthread_t Thread{};
    Descriptor Messages;
    Descriptor Wakeup;
    uint64_t Network = 0;

    // Set once, by the thread that then joins this one.
    std::atomic<bool> Stop{false};

    // Guarded by g_Lock.
    std::vector<std::shared_ptr<Group>> Groups;

    static void* Run(void* watch) {
        pthread_setname_np(pthread_self(), "zaq-watch");
        static_cast<Watch*>(watch)->Run();
        return nullptr;
    }

  private:
    void Run() {
        constexpr useconds_t kErrorPause_us = 10000;
        pollfd files[] = {{Messages.Number(), POLLIN, 0}, {Wakeup.Number(), POLLIN, 0}};
        // Relaxed: nothing but this flag is passed on.
        while (!Stop.load(std::memory_order_relaxed)) {
            if (poll(files, std::size(files), Timeout_ms()) < 0)
                usleep(kErrorPause_us);  // an error that stays must not make this a busy loop
            try {
                if (files[0].revents != 0)
                    TakeMessages();
                if (Timeout_ms() == 0)
                    Look();
            } catch (const std::bad_alloc&) {
                m_LooksLeft = std::max(m_LooksLeft, 1);
            }
        }
    }

    // Until the next look, for poll().
    int Timeout_ms() const {
        const auto left = std::chrono::ceil<std::chrono::milliseconds>(m_NextLook - Clock::now());
        return m_LooksLeft > 0 ? std::max(static_cast<int>(left.count()), 0) : -1;
    }

    void TakeMessages() {
        // Apart from memberships that are gone it does not matter what the messages say: each, and
        // ENOBUFS for those that the kernel has dropped, says that something has changed.
        constexpr int kMost = 1000;  // the rest waits for the next time
        struct {
            nlmsghdr Header;
            netconfmsg Family;
            alignas(NLMSG_ALIGNTO) rtattr Attribute;
            uint32_t Interface;
        } message;
        if (m_LooksLeft != kLooks)
            m_NextLook = Clock::now() + kSettle;
        m_LooksLeft = kLooks;
        for (int count = 0; count < kMost; ++count) {
            const ssize_t size = recv(Messages.Number(), &message, sizeof(message), 0);
            if (size < 0 && errno != ENOBUFS)
                break;
            // An interface is gone, is renamed, or has lost a family: IPv6 needs an MTU of 1280.
            if (size == sizeof(message) && message.Header.nlmsg_type == RTM_DELNETCONF)
                m_Lost.emplace_back(message.Interface, message.Family.ncm_family);
        }
        Rejoin();
    }

    // All leave before the first one joins: see LeaveInterface. False = there is no descriptor to
    // borrow at the moment; those that have left are joined by the look that follows a success.
    bool Rejoin() {
        std::vector<std::pair<std::shared_ptr<Group>, uint32_t>> left;
        for (const auto& [interface, family] : m_Lost)
            for (const auto& group : CopyGroups())
                if (group->Family() == family &&
                    std::ranges::find(group->Joined, interface) != group->Joined.end()) {
                    const Descriptor socket = Borrow(*group);
                    if (!socket && !group->IsDestroyed.load(std::memory_order_relaxed))
                        return false;
                    LeaveInterface(*group, socket, interface);
                    left.emplace_back(group, interface);
                }
        m_Lost.clear();
        for (const auto& [group, interface] : left)
            JoinInterface(*group, Borrow(*group), interface);
        return true;
    }

    void Look() {
        --m_LooksLeft;
        m_NextLook = Clock::now() + kPause;
        if (!Rejoin() || !Renew())
            m_LooksLeft = std::max(m_LooksLeft, 1);
        else if (m_LooksLeft == 0)
            for (const auto& group : CopyGroups())
                group->Follows = false;
    }

    // False when one of the groups has to be looked at again.
    bool Renew() {
        const InterfaceList interfaces;
        bool joined = true;
        for (const auto& group : CopyGroups()) {
            const Descriptor socket = Borrow(*group);
            Descriptor renewed;
            if (!socket || !RenewMemberships(*group, socket, interfaces, renewed))
                joined = false;
            if (renewed && !Replace(*group, renewed, socket)) {
                group->Joined.clear();
                joined = false;
            }
        }
        return joined;
    }

    std::vector<std::shared_ptr<Group>> CopyGroups() const {
        const std::lock_guard lock(g_Lock);
        return Groups;
    }

    using Clock = std::chrono::steady_clock;

    // Changes come together, like a link and its addresses, and are looked at a moment after the
    // first; and then a few times more, since routes follow later.
    static constexpr std::chrono::milliseconds kSettle{200};
    static constexpr std::chrono::milliseconds kPause{1000};
    static constexpr int kLooks = 5;

    std::vector<std::pair<uint32_t, int>> m_Lost;  // interfaces, and the families that they had

    // The first look comes at once: something may have changed since the first socket was opened.
    int m_LooksLeft = 1;
    Clock::time_point m_NextLook{};
};

Watch* g_Watch = nullptr;  // guarded by g_Lock

// With g_Lock held. Leaves g_Watch null, with success, where rtnetlink is refused.
bool StartWatch() {
    auto watch = std::make_unique<Watch>();
    watch->Messages =
        OpenNetlink(RTMGRP_LINK | RTMGRP_IPV4_IFADDR | RTMGRP_IPV6_IFADDR |
                    1U << (RTNLGRP_IPV4_NETCONF - 1) | 1U << (RTNLGRP_IPV6_NETCONF - 1));
    if (!watch->Messages)
        return errno != EMFILE && errno != ENFILE && errno != ENOMEM && errno != ENOBUFS;
    EnlargeReceiveBuffer(watch->Messages);  // for floods of changes
    watch->Wakeup = Descriptor(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
    watch->Network = NetworkOf(watch->Messages);
    if (!watch->Wakeup || !StartThread(watch->Thread, &Watch::Run, watch.get()))
        return false;
    g_Watch = watch.release();  // freed by the thread that joins it
    return true;
}

}  // namespace

bool WatchGroup(const std::shared_ptr<Group>& group, ReceiveSocket& socket) {
    if (g_Watch == nullptr && !StartWatch())
        return false;
    if (g_Watch == nullptr || g_Watch->Network != NetworkOf(socket.File))
        return true;
    g_Watch->Groups.push_back(group);
    group->Socket = &socket;
    return true;
}

void UnwatchGroup(Group& group) {
    group.IsDestroyed.store(true, std::memory_order_relaxed);  // a hint
    if (group.Socket == nullptr)
        return;
    group.Socket = nullptr;
    std::erase_if(g_Watch->Groups, [&](const auto& other) { return other.get() == &group; });
}

void EndUnusedWatch() {
    std::unique_ptr<Watch> watch;
    {
        const std::lock_guard lock(g_Lock);
        if (g_Watch == nullptr || !g_Watch->Groups.empty())
            return;
        watch.reset(std::exchange(g_Watch, nullptr));
    }
    watch->Stop.store(true, std::memory_order_relaxed);  // as where it is read
    eventfd_write(watch->Wakeup.Number(), 1);
    pthread_join(watch->Thread, nullptr);
}

void ForgetWatch() {
    g_Watch = nullptr;
}

}  // namespace zaqsockets
