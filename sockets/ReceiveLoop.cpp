#include "ReceiveLoop.h"

#include <netinet/udp.h>
#include <signal.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <new>

namespace zaqsockets {

namespace {

constexpr int kBatchDatagrams = 64;
constexpr int kEvents = 64;
constexpr size_t kLargestDatagram = 65536;  // 65507 bytes of payload fit (IPv6: 65527)
// The slots' first lines must not share a cache set, or a batch would evict itself.
constexpr size_t kSlotBytes = kLargestDatagram + 33 * 64;
constexpr useconds_t kErrorPause_us = 1000;

// Above 2000 datagrams a second the thread lets them gather for a millisecond: waking up costs it
// more than taking them. Who reads what the callbacks store polls once a millisecond, too.
constexpr useconds_t kGather_us = 1000;
constexpr std::chrono::milliseconds kLoadWindow{16};
constexpr uint32_t kGatherFrom = 32;  // in a window; a train of datagrams counts as one

// Guards the two lists of loops, and in every loop what its declaration says. Constant-initialised
// and trivially destroyed, so a thread may use it while the process exits. It is never held while a
// callback runs or a thread is waited for.
std::mutex g_Lock;
ReceiveLoop* g_Loop = nullptr;   // serves new sockets
ReceiveLoop* g_Ended = nullptr;  // ended by themselves, not collected yet

}  // namespace

// Storage of one recvmmsg() call.
struct ReceiveLoop::Batch {
    mmsghdr Messages[kBatchDatagrams];
    iovec Vectors[kBatchDatagrams];
    sockaddr_in6 Sources[kBatchDatagrams];  // the larger of the two families
    alignas(cmsghdr) unsigned char Controls[kBatchDatagrams][CMSG_SPACE(sizeof(int))];
    unsigned char Slots[kBatchDatagrams][kSlotBytes];

    // The slots stay untouched, and so without memory behind them, until datagrams fill them.
    void Prepare() {
        for (int i = 0; i < kBatchDatagrams; ++i) {
            Vectors[i] = {Slots[i], kLargestDatagram};
            Messages[i] = {};
            Messages[i].msg_hdr.msg_iov = &Vectors[i];
            Messages[i].msg_hdr.msg_iovlen = 1;
            Messages[i].msg_hdr.msg_name = &Sources[i];
            Messages[i].msg_hdr.msg_control = Controls[i];
            Renew(i);
        }
    }

    // The kernel writes the lengths that it used.
    void Renew(int i) {
        Messages[i].msg_hdr.msg_namelen = sizeof(Sources[i]);
        Messages[i].msg_hdr.msg_controllen = sizeof(Controls[i]);
    }

    // Size of the datagrams in a message: the network card or the kernel may have joined a train of
    // them, equal in size but for the last (udp(7), UDP_GRO).
    unsigned int DatagramSize(int i) {
        const cmsghdr* const control = CMSG_FIRSTHDR(&Messages[i].msg_hdr);
        if (control == nullptr || control->cmsg_level != SOL_UDP || control->cmsg_type != UDP_GRO)
            return Messages[i].msg_len;
        int size;
        memcpy(&size, CMSG_DATA(control), sizeof(size));
        return size > 0 ? static_cast<unsigned int>(size) : Messages[i].msg_len;
    }
};

// Tells whether datagrams come so fast that gathering them pays.
class ReceiveLoop::Load {
  public:
    bool IsHigh(uint32_t datagrams) {
        m_Datagrams += datagrams;
        const Clock::time_point now = Clock::now();
        if (now - m_Start >= kLoadWindow) {
            m_High = m_Datagrams >= kGatherFrom && now - m_Start < 2 * kLoadWindow;
            m_Start = now;
            m_Datagrams = 0;
        }
        return m_High;
    }

  private:
    using Clock = std::chrono::steady_clock;
    Clock::time_point m_Start{};
    uint32_t m_Datagrams = 0;
    bool m_High = false;
};

ReceiveLoop::ReceiveLoop()
    : m_Process(getpid()),
      m_Epoll(epoll_create1(EPOLL_CLOEXEC)),
      m_Wakeup(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)),
      m_Batch(new (std::nothrow) Batch) {
    if (m_Batch)
        m_Batch->Prepare();
}

ReceiveLoop* ReceiveLoop::Start() {
    ReceiveLoop* const loop = new (std::nothrow) ReceiveLoop;
    if (loop == nullptr)
        return nullptr;
    epoll_event wakeup{};
    wakeup.events = EPOLLIN;
    bool started = false;
    if (loop->m_Epoll && loop->m_Wakeup && loop->m_Batch &&
        epoll_ctl(loop->m_Epoll.Number(), EPOLL_CTL_ADD, loop->m_Wakeup.Number(), &wakeup) == 0) {
        // The thread inherits the mask: the host's signal handlers run on the host's threads.
        sigset_t all;
        sigset_t previous;
        sigfillset(&all);
        pthread_sigmask(SIG_SETMASK, &all, &previous);
        started = pthread_create(&loop->m_Thread, nullptr, &ReceiveLoop::Run, loop) == 0;
        pthread_sigmask(SIG_SETMASK, &previous, nullptr);
    }
    if (!started) {
        delete loop;
        return nullptr;
    }
    return loop;
}

bool ReceiveLoop::Attach(ReceiveSocket& socket) {
    Collect();
    {
        const std::lock_guard lock(g_Lock);
        // After fork() the parent's loop is of no use to the child: its thread is not there.
        if (g_Loop != nullptr && g_Loop->m_Process != getpid())
            g_Loop = nullptr;
        if (g_Loop == nullptr)
            g_Loop = Start();
        if (g_Loop == nullptr)
            return false;
        socket.Loop = g_Loop;
        epoll_event readable{};
        readable.events = EPOLLIN;
        readable.data.ptr = &socket;
        if (epoll_ctl(g_Loop->m_Epoll.Number(), EPOLL_CTL_ADD, socket.File.Number(), &readable) ==
            0) {
            ++g_Loop->m_Sockets;
            return true;
        }
    }
    StopUnused();  // the loop may have been made for this socket
    return false;
}

void ReceiveLoop::Detach(ReceiveSocket* socket) {
    ReceiveLoop* const loop = socket->Loop;
    if (loop->m_Process != getpid()) {
        // In a child of fork() no thread serves the socket. The epoll instance is shared with the
        // parent, whose registration must stay.
        delete socket;
        return;
    }
    socket->Closed.store(true, std::memory_order_release);  // the lock below orders it, too
    epoll_ctl(loop->m_Epoll.Number(), EPOLL_CTL_DEL, socket->File.Number(), nullptr);
    const bool inCallback = loop->IsOwnThread();
    if (!inCallback) {
        const std::lock_guard left(socket->Busy);
    }
    socket->File.Close();

    {
        const std::lock_guard lock(g_Lock);
        // The loop may hold an event for the socket that it has not looked at yet, so the memory
        // goes when it waits for new ones.
        socket->NextDead = loop->m_Dead;
        loop->m_Dead = socket;
        --loop->m_Sockets;
        // Within the lock: without it the loop might see that it has no socket, end, and be
        // collected, before it is woken.
        loop->Wake();
    }
    if (!inCallback) {
        StopUnused();
        Collect();
    }
}

// Not from the loop's own thread, which cannot wait for itself.
void ReceiveLoop::StopUnused() {
    ReceiveLoop* loop;
    {
        const std::lock_guard lock(g_Lock);
        if (g_Loop == nullptr || g_Loop->m_Sockets != 0 || g_Loop->IsOwnThread())
            return;
        loop = g_Loop;
        g_Loop = nullptr;
        loop->m_Stop = true;
        loop->Wake();
    }
    loop->Join();
}

void ReceiveLoop::Collect() {
    ReceiveLoop* ended;
    {
        const std::lock_guard lock(g_Lock);
        ended = g_Ended;
        g_Ended = nullptr;
    }
    while (ended != nullptr) {
        ReceiveLoop* const next = ended->m_NextEnded;
        ended->Join();
        ended = next;
    }
}

void ReceiveLoop::Join() {
    if (m_Process == getpid())
        pthread_join(m_Thread, nullptr);
    FreeDead();
    delete this;
}

void ReceiveLoop::Wake() const {
    const uint64_t one = 1;
    // Full means that a wake-up is pending already.
    [[maybe_unused]] const ssize_t written = write(m_Wakeup.Number(), &one, sizeof(one));
}

void ReceiveLoop::FreeDead() {
    ReceiveSocket* dead;
    {
        const std::lock_guard lock(g_Lock);
        dead = m_Dead;
        m_Dead = nullptr;
    }
    while (dead != nullptr) {
        ReceiveSocket* const next = dead->NextDead;
        delete dead;
        dead = next;
    }
}

// Tells the thread to end: somebody waits for it, or a callback has destroyed the last socket, in
// which case the loop takes itself out of service.
bool ReceiveLoop::LeaveIfUnused() {
    const std::lock_guard lock(g_Lock);
    if (m_Stop)
        return true;
    if (m_Sockets != 0 || g_Loop != this)
        return false;
    g_Loop = nullptr;
    m_NextEnded = g_Ended;
    g_Ended = this;
    return true;
}

void* ReceiveLoop::Run(void* loop) {
    auto& self = *static_cast<ReceiveLoop*>(loop);
    pthread_setname_np(pthread_self(), "zaq-receive");
    Load load;
    for (;;) {
        epoll_event events[kEvents];
        const int count = epoll_wait(self.m_Epoll.Number(), events, kEvents, -1);
        if (count < 0 && errno != EINTR)
            usleep(kErrorPause_us);
        bool woken = false;
        bool more = false;
        uint32_t datagrams = 0;
        for (int i = 0; i < count; ++i) {
            if (events[i].data.ptr == nullptr) {
                woken = true;
                continue;
            }
            const int taken = self.Serve(*static_cast<ReceiveSocket*>(events[i].data.ptr));
            datagrams += static_cast<uint32_t>(taken);
            more = more || taken == kBatchDatagrams;
        }
        if (woken) {
            uint64_t wakeups;
            [[maybe_unused]] const ssize_t size =
                read(self.m_Wakeup.Number(), &wakeups, sizeof(wakeups));
            self.FreeDead();
            if (self.LeaveIfUnused())
                return nullptr;
        }
        if (load.IsHigh(datagrams) && !more)
            usleep(kGather_us);
    }
}

// Takes one batch and returns the number of messages. What is left makes the socket readable again,
// after the others had their turn.
int ReceiveLoop::Serve(ReceiveSocket& socket) {
    const std::lock_guard busy(socket.Busy);
    if (socket.Closed.load(std::memory_order_acquire))
        return 0;
    const int count =
        recvmmsg(socket.File.Number(), m_Batch->Messages, kBatchDatagrams, MSG_DONTWAIT, nullptr);
    if (count > 0)
        Deliver(socket, count);
    else if (count < 0 && errno != EAGAIN && errno != EINTR)
        usleep(kErrorPause_us);  // an error that stays must not turn this thread into a busy loop
    return std::max(count, 0);
}

void ReceiveLoop::Deliver(ReceiveSocket& socket, int count) {
    for (int i = 0; i < count; ++i) {
        const unsigned int size = m_Batch->DatagramSize(i);
        const unsigned int length = m_Batch->Messages[i].msg_len;
        unsigned int offset = 0;
        do {
            // A callback may destroy its own socket, or another thread wants to destroy it.
            if (!socket.Closed.load(std::memory_order_acquire))
                socket.Callback(socket.Handle, nullptr,
                                reinterpret_cast<sockaddr*>(&m_Batch->Sources[i]),
                                m_Batch->Slots[i] + offset, std::min(size, length - offset));
            offset += size;
        } while (offset < length);
        m_Batch->Renew(i);
    }
}

}  // namespace zaqsockets

static const pid_t g_LoadedBy = getpid();

// Unloading: a loop that a callback brought to its end must be gone before the code is. Not in a
// child of fork(), which has none of the threads, and where one of them may have left a lock
// closed.
__attribute__((destructor)) static void CollectAtUnload() {
    if (g_LoadedBy == getpid()) {
        zaqsockets::ReceiveLoop::StopUnused();
        zaqsockets::ReceiveLoop::Collect();
    }
}
