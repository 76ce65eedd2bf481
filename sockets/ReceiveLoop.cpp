#include "ReceiveLoop.h"

#include <sched.h>
#include <signal.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/resource.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <new>

#include "SocketOptions.h"

namespace zaqsockets {

namespace {

constexpr int kEvents = 64;
constexpr useconds_t kErrorPause_us = 1000;

// Guards the two lists of loops, and in every loop and socket what their declarations say.
// Constant-initialised and trivially destroyed, so a thread may use it while the process exits. It is
// never held while a callback runs or a thread is waited for.
std::mutex g_Lock;
ReceiveLoop* g_Loops = nullptr;   // in service
ReceiveLoop* g_Ended = nullptr;   // ended by themselves, not collected yet
std::atomic<int> g_LoopCount{0};  // of those in service; read without the lock, as an estimate

// A loop this quiet may be joined with another such one.
constexpr uint32_t kQuiet_percent = 20;

// Those that a thread which is started by this one may use.
int CountProcessors() {
    cpu_set_t set;
    return sched_getaffinity(0, sizeof(set), &set) == 0
               ? CPU_COUNT(&set)
               : static_cast<int>(sysconf(_SC_NPROCESSORS_ONLN));  // more than the set can hold
}

int64_t Now_ms() {
    const auto now = std::chrono::steady_clock::now().time_since_epoch();
    return std::chrono::duration_cast<std::chrono::milliseconds>(now).count();
}

}  // namespace

// What a loop's thread knows of its own load, in windows of 16 ms or, when it has waited for longer,
// as long as that.
class ReceiveLoop::Load {
  public:
    // Called after every round. True when a window has ended.
    bool Count(uint32_t messages) {
        m_Messages += messages;
        const Clock::time_point now = Clock::now();
        const Clock::duration window = now - m_Start;
        if (window < kWindow)
            return false;
        rusage usage;
        if (getrusage(RUSAGE_THREAD, &usage) != 0)
            return false;  // the window goes on
        const auto cpu = Microseconds(usage.ru_utime) + Microseconds(usage.ru_stime);
        const bool whole = window < 2 * kWindow;
        const long waits = usage.ru_nvcsw - m_Waits;
        const bool keep = m_Gather && ++m_GatherWindows % kProbeWindows != 0;
        m_Gather = whole && (keep ? m_Messages >= kGatherMessages : waits >= kGatherWaits);
        m_Busy_percent = static_cast<uint32_t>((cpu - m_Cpu) * 100 / window);
        // The latter, since a thread that others keep from running does not wait either.
        m_Saturated = waits == 0 && m_Busy_percent >= kSaturated_percent ? m_Saturated + 1 : 0;
        if (m_Busy_percent > kQuiet_percent)
            m_QuietSince = now;
        m_Start = now;
        m_Cpu = cpu;
        m_Waits = usage.ru_nvcsw;
        m_Messages = 0;
        return true;
    }

    // Waking up is what costs most. Above 2500 wake-ups a second, and then as long as there are 2000
    // messages a second, the thread lets them gather for a millisecond. Who reads what the callbacks
    // store polls once a millisecond, too. Every second it looks anew for a window: messages may have
    // begun to come in bursts, which need no gathering.
    bool IsGathering() const { return m_Gather; }
    uint32_t Busy_percent() const { return m_Busy_percent; }
    // Windows in a row in which it has not come to wait.
    uint32_t SaturatedWindows() const { return m_Saturated; }
    // True once for every second with little to do.
    bool HasBeenQuiet() {
        const bool quiet = m_Start - m_QuietSince >= std::chrono::seconds(1);
        if (quiet)
            m_QuietSince = m_Start;
        return quiet;
    }

  private:
    using Clock = std::chrono::steady_clock;
    static constexpr std::chrono::milliseconds kWindow{16};
    static constexpr long kGatherWaits = 40;
    static constexpr uint32_t kGatherMessages = 32;  // a train of datagrams counts as one
    static constexpr uint32_t kProbeWindows = 64;
    static constexpr uint32_t kSaturated_percent = 50;

    static std::chrono::microseconds Microseconds(const timeval& time) {
        return std::chrono::seconds(time.tv_sec) + std::chrono::microseconds(time.tv_usec);
    }

    Clock::time_point m_Start = Clock::now();
    Clock::time_point m_QuietSince = m_Start;
    std::chrono::microseconds m_Cpu{};
    long m_Waits = 0;
    uint32_t m_Messages = 0;
    bool m_Gather = false;
    uint32_t m_GatherWindows = 0;
    uint32_t m_Busy_percent = 0;
    uint32_t m_Saturated = 0;
};

ReceiveLoop::ReceiveLoop()
    : m_Process(getpid()),
      m_Epoll(epoll_create1(EPOLL_CLOEXEC)),
      m_Wakeup(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)),
      m_Batch(new (std::nothrow) ReceiveBatch),
      m_Seen_ms(Now_ms()) {
    if (m_Batch)
        m_Batch->Prepare();
}

// Puts a new loop into service. With the lock held.
ReceiveLoop* ReceiveLoop::Start() {
    std::unique_ptr<ReceiveLoop> loop(new (std::nothrow) ReceiveLoop);
    if (!loop || !loop->m_Epoll || !loop->m_Wakeup || !loop->m_Batch)
        return nullptr;
    epoll_event wakeup{};
    wakeup.events = EPOLLIN;
    if (epoll_ctl(loop->m_Epoll.Number(), EPOLL_CTL_ADD, loop->m_Wakeup.Number(), &wakeup) != 0)
        return nullptr;
    epoll_event news{};
    news.events = EPOLLIN;
    news.data.ptr = &loop->m_Interfaces;
    if (loop->m_Interfaces.Number() >= 0)
        epoll_ctl(loop->m_Epoll.Number(), EPOLL_CTL_ADD, loop->m_Interfaces.Number(), &news);
    // The thread inherits the mask: the host's signal handlers run on the host's threads. What a
    // thread brings upon itself can not wait: blocked, it would end the process past any handler.
    sigset_t blocked;
    sigset_t previous;
    sigfillset(&blocked);
    constexpr int kOwn[] = {SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGTRAP, SIGSYS};
    for (const int own : kOwn)
        sigdelset(&blocked, own);
    pthread_sigmask(SIG_SETMASK, &blocked, &previous);
    const bool started =
        pthread_create(&loop->m_Thread, nullptr, &ReceiveLoop::Run, loop.get()) == 0;
    pthread_sigmask(SIG_SETMASK, &previous, nullptr);
    if (!started)
        return nullptr;
    loop->m_Next = g_Loops;
    g_Loops = loop.release();  // freed by who joins the thread
    ++g_LoopCount;
    return g_Loops;
}

// Relaxed: numbers that are a little old are as good. Where there are several loops, each looks at
// itself every 100 ms; one that does not is in a callback that takes long.
uint32_t ReceiveLoop::Busy_percent() const {
    constexpr int64_t kOverdue_ms = 300;
    return Now_ms() - m_Seen_ms.load(std::memory_order_relaxed) > kOverdue_ms
               ? 100
               : m_Busy_percent.load(std::memory_order_relaxed);
}

// With the lock held. Null when there is none.
ReceiveLoop* ReceiveLoop::LeastBusy(const ReceiveLoop* butNot) {
    ReceiveLoop* least = nullptr;
    for (ReceiveLoop* loop = g_Loops; loop != nullptr; loop = loop->m_Next)
        if (loop != butNot && (least == nullptr || loop->Busy_percent() < least->Busy_percent()))
            least = loop;
    return least;
}

bool ReceiveLoop::Attach(ReceiveSocket& socket) {
    Collect();
    {
        const std::lock_guard lock(g_Lock);
        // After fork() the parent's loops are of no use to the child: their threads are not there.
        if (g_Loops != nullptr && g_Loops->m_Process != getpid()) {
            g_Loops = nullptr;
            g_LoopCount = 0;
        }
        ReceiveLoop* loop = LeastBusy(nullptr);
        if (loop == nullptr)
            loop = Start();
        if (loop == nullptr)
            return false;
        if (loop->Add(socket))
            return true;
    }
    Tidy();  // the loop may have been made for this socket
    return false;
}

// With the lock held. The thread may serve the socket at once, and its callback destroy it; but that
// needs the lock.
bool ReceiveLoop::Add(ReceiveSocket& socket) {
    epoll_event readable{};
    readable.events = EPOLLIN;
    readable.data.ptr = &socket;
    if (epoll_ctl(m_Epoll.Number(), EPOLL_CTL_ADD, socket.File.Number(), &readable) != 0)
        return false;
    socket.Loop = this;
    socket.Taken.store(0, std::memory_order_relaxed);  // a little less than it was, at worst
    socket.Next = m_Sockets;
    m_Sockets = &socket;
    ++m_SocketCount;
    return true;
}

// With the lock held.
void ReceiveLoop::Remove(ReceiveSocket& socket) {
    ReceiveSocket** link = &m_Sockets;
    while (*link != &socket)
        link = &(*link)->Next;
    *link = socket.Next;
    --m_SocketCount;
}

void ReceiveLoop::Detach(ReceiveSocket* socket) {
    if (socket->Process != getpid()) {
        // In a child of fork() no thread serves the socket. The epoll instance is shared with the
        // parent, whose registration must stay.
        delete socket;
        return;
    }
    ReceiveLoop* loop;
    {
        const std::lock_guard lock(g_Lock);
        socket->Closed.store(true, std::memory_order_release);  // from here on it does not move
        loop = socket->Loop;
        epoll_ctl(loop->m_Epoll.Number(), EPOLL_CTL_DEL, socket->File.Number(), nullptr);
    }
    const bool inCallback = loop->IsOwnThread();
    if (!inCallback) {
        const std::lock_guard left(socket->Busy);
    }
    socket->File.Close();

    {
        const std::lock_guard lock(g_Lock);
        loop->Remove(*socket);
        // The loop may hold an event for the socket that it has not looked at yet, so the memory
        // goes when it waits for new ones.
        socket->Next = loop->m_Dead;
        loop->m_Dead = socket;
        if (inCallback)
            loop->m_InCallback = true;
        // Within the lock: without it the loop might see that it has no socket, end, and be
        // collected, before it is woken.
        loop->Wake();
    }
    Tidy();
}

// After a socket has gone. Two callbacks might wait for each other's threads, so that a loop's thread
// leaves those that still run to themselves; they have been woken.
void ReceiveLoop::Tidy() {
    if (!IsLoopThread())
        StopUnused(false);
    Collect();
}

// Is this called from a callback? A loop that runs one is in service.
bool ReceiveLoop::IsLoopThread() {
    const std::lock_guard lock(g_Lock);
    for (const ReceiveLoop* loop = g_Loops; loop != nullptr; loop = loop->m_Next)
        if (loop->IsOwnThread())
            return true;
    return false;
}

void ReceiveLoop::StopUnused(bool all) {
    ReceiveLoop* unused = nullptr;
    {
        const std::lock_guard lock(g_Lock);
        for (ReceiveLoop** link = &g_Loops; *link != nullptr;) {
            ReceiveLoop* const loop = *link;
            if (loop->m_SocketCount != 0 || loop->IsOwnThread() || (loop->m_InCallback && !all)) {
                link = &loop->m_Next;
                continue;
            }
            *link = loop->m_Next;
            --g_LoopCount;
            loop->m_Next = unused;
            unused = loop;
            loop->m_Stop = true;
            loop->Wake();
        }
    }
    JoinAll(unused);
}

void ReceiveLoop::Collect() {
    ReceiveLoop* ended;
    {
        const std::lock_guard lock(g_Lock);
        ended = g_Ended;
        g_Ended = nullptr;
    }
    JoinAll(ended);
}

void ReceiveLoop::JoinAll(ReceiveLoop* list) {
    while (list != nullptr) {
        ReceiveLoop* const next = list->m_Next;
        list->Join();
        list = next;
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
        ReceiveSocket* const next = dead->Next;
        delete dead;
        dead = next;
    }
}

// Called between rounds, and so in no callback. Tells the thread to end: somebody waits for it, or it
// has no socket left, in which case the loop takes itself out of service.
bool ReceiveLoop::LeaveIfUnused() {
    const std::lock_guard lock(g_Lock);
    m_InCallback = false;
    if (m_MustLook)
        m_Interfaces.Notice();
    m_MustLook = false;
    if (m_Stop)
        return true;
    if (m_SocketCount != 0)
        return false;
    ReceiveLoop** link = &g_Loops;
    while (*link != this)
        link = &(*link)->m_Next;
    *link = m_Next;
    --g_LoopCount;
    m_Next = g_Ended;
    g_Ended = this;
    if (g_Loops != nullptr)
        g_Loops->Wake();  // to collect this one
    return true;
}

// Moves sockets that together have brought no more than so many messages lately. With the lock held,
// by the own thread, which serves none of them at the time.
void ReceiveLoop::MoveTo(ReceiveLoop& other, uint64_t messages) {
    // What this loop has still to look at, the other one may have looked at already.
    if (m_Interfaces.IsPending()) {
        other.m_MustLook = true;
        other.Wake();
    }
    for (ReceiveSocket* socket = m_Sockets; socket != nullptr;) {
        ReceiveSocket* const next = socket->Next;
        const uint32_t taken = socket->Taken.load(std::memory_order_relaxed);        // own thread's
        if (taken <= messages && !socket->Closed.load(std::memory_order_relaxed)) {  // as the lock
            Remove(*socket);
            // The other thread may serve it at once. This one takes it out before it waits again, and
            // has no event left that it has not looked at.
            if (other.Add(*socket)) {
                epoll_ctl(m_Epoll.Number(), EPOLL_CTL_DEL, socket->File.Number(), nullptr);
                messages -= taken;
            } else {
                socket->Next = m_Sockets;
                m_Sockets = socket;
                ++m_SocketCount;
            }
        }
        socket = next;
    }
}

// At the end of a window.
void ReceiveLoop::Adapt(Load& load) {
    constexpr uint32_t kPatience = 3;  // windows in which it is seen what fills them
    m_Busy_percent.store(load.Busy_percent(), std::memory_order_relaxed);  // as in Busy_percent()
    m_Seen_ms.store(Now_ms(), std::memory_order_relaxed);
    if (load.SaturatedWindows() == 1) {
        const std::lock_guard lock(g_Lock);
        ResetTaken();
    } else if (load.SaturatedWindows() % (kPatience + 1) == kPatience)
        ShareLoad();
    else if (load.HasBeenQuiet())
        JoinQuietLoops();
}

// With the lock held.
void ReceiveLoop::ResetTaken() {
    for (ReceiveSocket* socket = m_Sockets; socket != nullptr; socket = socket->Next)
        socket->Taken.store(0, std::memory_order_relaxed);  // own thread's
}

// As much as makes both equally busy. That is half at most, so that a socket which alone fills a
// processor stays and the others get away from it.
void ReceiveLoop::ShareLoad() {
    constexpr uint32_t kRoom_percent = 60;
    const std::lock_guard lock(g_Lock);
    uint64_t messages = 0;
    for (const ReceiveSocket* socket = m_Sockets; socket != nullptr; socket = socket->Next)
        messages += socket->Taken.load(std::memory_order_relaxed);  // own thread's
    ReceiveLoop* other = LeastBusy(this);
    uint32_t busy_percent = other != nullptr ? other->Busy_percent() : 100;
    if (busy_percent > kRoom_percent) {
        const bool start = m_SocketCount >= 2 && messages != 0 && g_LoopCount < CountProcessors();
        other = start ? Start() : nullptr;
        busy_percent = 0;
    }
    if (other != nullptr && messages != 0) {
        MoveTo(*other, messages * (100 - busy_percent) / 200);
        other->Wake();  // it leaves if it is new and has got nothing
    }
    ResetTaken();
}

// Hands everything to another loop that has as little to do.
void ReceiveLoop::JoinQuietLoops() {
    const std::lock_guard lock(g_Lock);
    ReceiveLoop* const other = LeastBusy(this);
    if (other == nullptr || other->Busy_percent() > kQuiet_percent)
        return;
    MoveTo(*other, UINT64_MAX);
    Wake();  // to leave
}

// The memberships on an interface that is gone count to the limit; and where it comes back with its
// number, as from another network namespace, they would pass for good ones and prevent new ones.
void ReceiveLoop::LeaveGroups(uint32_t interface) {
    const std::lock_guard lock(g_Lock);
    for (const ReceiveSocket* socket = m_Sockets; socket != nullptr; socket = socket->Next)
        if (socket->Source.Group[0] != '\0' && !socket->Closed.load(std::memory_order_relaxed))
            LeaveGroup(socket->File, interface);
}

// After interfaces have changed. The lock keeps sockets from being destroyed meanwhile: who destroys one
// marks it under the lock, and uses the descriptor after that.
void ReceiveLoop::RenewMemberships() {
    bool good = true;
    const std::lock_guard lock(g_Lock);
    for (ReceiveSocket* socket = m_Sockets; socket != nullptr; socket = socket->Next)
        if (socket->Source.Group[0] != '\0' && !socket->Closed.load(std::memory_order_relaxed))
            good = RenewMembership(*socket) && good;
    if (!good)
        m_Interfaces.Repeat();
    m_Interfaces.Finish();
    if (!m_Interfaces.IsPending())
        for (ReceiveSocket* socket = m_Sockets; socket != nullptr; socket = socket->Next)
            socket->Renewed = false;
}

// False when the socket is deaf, and has to be looked at again: its interface is not there yet. With the
// lock held, by the own thread.
bool ReceiveLoop::RenewMembership(ReceiveSocket& socket) {
    const GroupSource& source = socket.Source;
    Address local;
    Address group;
    if (!local.Parse(source.Local) || !group.Parse(source.Group))
        return false;  // a zone whose interface is gone
    group.SetPort(source.Port);
    const Membership state =
        zaqsockets::RenewMembership(socket.File, local, group, source.Everywhere, !socket.Renewed);
    if (state == Membership::Good)
        return true;
    Descriptor renewed = OpenGroupSocket(local, group, source.Everywhere);
    if (!renewed)
        return false;
    // There may just be more interfaces than a socket can have memberships. And another interface may
    // have been joined than is meant, as long as not all routes are there.
    if (state == Membership::Full
            ? !HasMoreMemberships(renewed, socket.File, group)
            : zaqsockets::RenewMembership(renewed, local, group, false, false) != Membership::Good)
        return state == Membership::Full;
    epoll_event readable{};
    readable.events = EPOLLIN;
    readable.data.ptr = &socket;
    if (epoll_ctl(m_Epoll.Number(), EPOLL_CTL_ADD, renewed.Number(), &readable) != 0)
        return false;
    epoll_ctl(m_Epoll.Number(), EPOLL_CTL_DEL, socket.File.Number(), nullptr);
    socket.File = std::move(renewed);
    socket.Renewed = true;
    return true;
}

// A loop that others measure themselves against looks at itself again even if nothing comes.
int ReceiveLoop::Timeout_ms() const {
    return g_LoopCount.load(std::memory_order_relaxed) > 1 ? 100 : -1;
}

void* ReceiveLoop::Run(void* loop) {
    constexpr useconds_t kGather_us = 1000;
    auto& self = *static_cast<ReceiveLoop*>(loop);
    pthread_setname_np(pthread_self(), "zaq-receive");
    Load load;
    for (;;) {
        epoll_event events[kEvents];
        const int count = epoll_wait(self.m_Epoll.Number(), events, kEvents,
                                     self.m_Interfaces.Limit(self.Timeout_ms()));
        if (count < 0 && errno != EINTR)
            usleep(kErrorPause_us);
        bool woken = false;
        bool more = false;
        uint32_t messages = 0;
        for (int i = 0; i < count; ++i) {
            if (events[i].data.ptr == nullptr) {
                woken = true;
                continue;
            }
            if (events[i].data.ptr == &self.m_Interfaces) {
                if (const uint32_t gone = self.m_Interfaces.Take(); gone != 0)
                    self.LeaveGroups(gone);
                continue;
            }
            const int taken = self.Serve(*static_cast<ReceiveSocket*>(events[i].data.ptr));
            messages += static_cast<uint32_t>(taken);
            more = more || taken == ReceiveBatch::kMessages;
        }
        if (self.m_Interfaces.IsDue())
            self.RenewMemberships();
        if (load.Count(messages))
            self.Adapt(load);
        if (woken) {
            uint64_t wakeups;
            [[maybe_unused]] const ssize_t size =
                read(self.m_Wakeup.Number(), &wakeups, sizeof(wakeups));
            self.FreeDead();
            Collect();
            if (self.LeaveIfUnused())
                return nullptr;
        }
        if (load.IsGathering() && !more)
            usleep(kGather_us);
    }
}

// Takes one batch and returns the number of messages. What is left makes the socket readable again,
// after the others had their turn.
int ReceiveLoop::Serve(ReceiveSocket& socket) {
    const std::lock_guard busy(socket.Busy);
    if (socket.Closed.load(std::memory_order_acquire))
        return 0;
    const int count = recvmmsg(socket.File.Number(), m_Batch->Messages, ReceiveBatch::kMessages,
                               MSG_DONTWAIT, nullptr);
    if (count < 0 && errno != EAGAIN && errno != EINTR)
        usleep(kErrorPause_us);  // an error that stays must not turn this thread into a busy loop
    if (count <= 0)
        return 0;
    for (int i = 0; i < count; ++i) {
        m_Batch->ForEachDatagram(
            i, [&](sockaddr* source, unsigned char* data, unsigned int length) {
                // A callback may destroy its own socket, or another thread wants to destroy it.
                if (!socket.Closed.load(std::memory_order_acquire))
                    socket.Callback(socket.Handle, nullptr, source, data, length);
            });
        m_Batch->Renew(i);
    }
    // Only this thread adds.
    socket.Taken.store(socket.Taken.load(std::memory_order_relaxed) + static_cast<uint32_t>(count),
                       std::memory_order_relaxed);
    return count;
}

}  // namespace zaqsockets

static const pid_t g_LoadedBy = getpid();

// Unloading, and exit: a loop that a callback brought to its end must be gone before the code is. Not
// in a child of fork(), which has none of the threads, and where one of them may have left a lock
// closed.
__attribute__((destructor)) static void CollectAtUnload() {
    if (g_LoadedBy == getpid()) {
        zaqsockets::ReceiveLoop::StopUnused(true);
        zaqsockets::ReceiveLoop::Collect();
    }
}
