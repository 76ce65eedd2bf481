#include "ReceiveLoop.h"

#include <pthread.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>

#include <cerrno>
#include <new>
#include <optional>

#include "GroupWatch.h"
#include "ReceiveBatch.h"
#include "SocketOptions.h"
#include "Threads.h"

namespace zaqsockets {

// All guarded by g_Lock, but for the reading at exit.
static ReceiveLoop* g_Loop = nullptr;     // in service
static std::optional<pthread_t> g_Ended;  // a thread that ended by itself, not waited for yet
static std::atomic<pid_t> g_Process{0};   // whose threads these are

// Thread safety: it belongs to its own thread, apart from what is marked.
class ReceiveLoop {
  public:
    ReceiveLoop()
        : m_Epoll(epoll_create1(EPOLL_CLOEXEC)),
          m_Wakeup(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)),
          m_Batch(new ReceiveBatch<>) {}
    ~ReceiveLoop() { Free(Dead); }

    // With g_Lock held. The thread frees the loop when it ends.
    bool Start() {
        epoll_event wakeup{};
        wakeup.events = EPOLLIN;
        return m_Epoll && m_Wakeup &&
               epoll_ctl(m_Epoll.Number(), EPOLL_CTL_ADD, m_Wakeup.Number(), &wakeup) == 0 &&
               StartThread(Thread, &ReceiveLoop::Run, this);
    }

    // Any thread may call these.
    bool Register(ReceiveSocket& socket) const {
        // Before Linux 5.0 there is no such option, and every message is one datagram.
        Set(socket.File, SOL_UDP, UDP_GRO, 1);
        epoll_event readable{};
        readable.events = EPOLLIN;
        readable.data.ptr = &socket;
        return epoll_ctl(m_Epoll.Number(), EPOLL_CTL_ADD, socket.File.Number(), &readable) == 0;
    }
    void Unregister(const ReceiveSocket& socket) const {
        epoll_ctl(m_Epoll.Number(), EPOLL_CTL_DEL, socket.File.Number(), nullptr);
    }
    // With g_Lock held, since the thread frees the loop when it finds out that it is over.
    void Wake() const { eventfd_write(m_Wakeup.Number(), 1); }
    bool IsOwnThread() const { return pthread_equal(Thread, pthread_self()) != 0; }

    // Fixed after the start.
    pthread_t Thread{};

    // Guarded by g_Lock.
    uint32_t SocketCount = 0;
    bool InCallback = false;        // in one that has destroyed a socket, maybe the last
    ReceiveSocket* Dead = nullptr;  // list of those destroyed; there may still be events for them

  private:
    static void* Run(void* loop) {
        pthread_setname_np(pthread_self(), "zaq-receive");
        const std::unique_ptr<ReceiveLoop> self(static_cast<ReceiveLoop*>(loop));
        self->Run();
        return nullptr;
    }

    void Run() {
        for (;;) {
            constexpr int kEvents = 64;
            epoll_event events[kEvents];
            const int count = epoll_wait(m_Epoll.Number(), events, kEvents, -1);
            if (count < 0 && errno != EINTR)
                usleep(kErrorPause_us);
            bool woken = false;
            bool more = false;
            for (int i = 0; i < count; ++i) {
                if (events[i].data.ptr == nullptr)
                    woken = true;
                else if (Serve(*static_cast<ReceiveSocket*>(events[i].data.ptr)) ==
                         ReceiveBatch<>::kMessages)
                    more = true;
            }
            if (woken && IsOver())
                return;
            if (more)
                continue;
            if (const auto pause = m_Gathering.Pause(); pause.count() > 0)
                usleep(static_cast<useconds_t>(pause.count()));
        }
    }

    // Called when the thread was woken, and so in no callback and with no event left.
    bool IsOver() {
        eventfd_t wakeups;
        eventfd_read(m_Wakeup.Number(), &wakeups);
        ReceiveSocket* dead;
        bool over;
        {
            const std::lock_guard lock(g_Lock);
            dead = std::exchange(Dead, nullptr);
            InCallback = false;
            if (g_Loop == this && SocketCount == 0) {
                g_Loop = nullptr;
                g_Ended = Thread;
            }
            over = g_Loop != this;
        }
        Free(dead);
        return over;
    }

    static void Free(ReceiveSocket* list) {
        while (list != nullptr)
            delete std::exchange(list, list->NextDead);
    }

    // Takes one batch and returns the number of messages. What is left makes the socket readable
    // again, after the others had their turn.
    int Serve(ReceiveSocket& socket) {
        const std::lock_guard busy(socket.Busy);
        // Acquire pairs with the release in DetachSocket, here and below.
        if (socket.Closed.load(std::memory_order_acquire))
            return 0;
        const int count = recvmmsg(socket.File.Number(), m_Batch->Messages,
                                   ReceiveBatch<>::kMessages, MSG_DONTWAIT, nullptr);
        if (count < 0 && errno != EAGAIN && errno != EINTR)
            usleep(kErrorPause_us);  // an error that stays must not make this a busy loop
        UdpSocket* const handle = &socket;
        for (int i = 0; i < count; ++i) {
            m_Gathering.Count(socket.Share, m_Batch->Messages[i].msg_len);
            const auto deliver = [&](sockaddr* source, unsigned char* data, unsigned int length) {
                // A callback may destroy its own socket, or another thread wants to destroy it.
                if (!socket.Closed.load(std::memory_order_acquire))
                    socket.Callback(handle, nullptr, source, data, length);
            };
            m_Batch->ForEachDatagram(i, deliver);
            m_Batch->Renew(i);
        }
        return count;
    }

    static constexpr useconds_t kErrorPause_us = 1000;

    // Fixed after the start.
    const Descriptor m_Epoll;
    const Descriptor m_Wakeup;
    const std::unique_ptr<ReceiveBatch<>> m_Batch;

    Gathering m_Gathering;
};

namespace {

// With g_Lock held.
bool StartLoop() {
    // The thread that has ended holds no lock and calls nothing any more.
    if (g_Ended)
        pthread_join(*std::exchange(g_Ended, std::nullopt), nullptr);
    auto loop = std::make_unique<ReceiveLoop>();
    if (!loop->Start())
        return false;
    g_Loop = loop.release();
    return true;
}

}  // namespace

void EndUnusedThreads(bool all) {
    EndUnusedWatch();
    std::optional<pthread_t> ended;
    std::optional<pthread_t> unused;
    {
        const std::lock_guard lock(g_Lock);
        ended = std::exchange(g_Ended, std::nullopt);
        if (g_Loop != nullptr && g_Loop->SocketCount == 0 && !g_Loop->IsOwnThread() &&
            (all || !g_Loop->InCallback)) {
            unused = g_Loop->Thread;
            std::exchange(g_Loop, nullptr)->Wake();
        }
    }
    for (const auto& thread : {ended, unused})
        if (thread)
            pthread_join(*thread, nullptr);
}

bool AttachSocket(ReceiveSocket& socket) {
    socklen_t size = sizeof(socket.Share.BufferBytes);
    getsockopt(socket.File.Number(), SOL_SOCKET, SO_RCVBUF, &socket.Share.BufferBytes, &size);
    const std::lock_guard lock(g_Lock);
    // After fork() the parent's threads are of no use to the child: they are not there.
    if (g_Process != getpid()) {
        g_Process = getpid();
        g_Loop = nullptr;
        g_Ended.reset();
        ForgetWatch();
    }
    if (g_Loop == nullptr && !StartLoop())
        return false;
    socket.Loop = g_Loop;
    if (socket.Joined && !WatchGroup(socket.Joined, socket))
        return false;
    // The thread may serve the socket at once, but a callback that destroys it needs the lock.
    if (g_Loop->Register(socket)) {
        ++g_Loop->SocketCount;
        return true;
    }
    if (socket.Joined)
        UnwatchGroup(*socket.Joined);
    return false;
}

void DetachSocket(ReceiveSocket* socket) {
    if (socket->Process != getpid()) {
        // In a child of fork() no thread serves the socket. The epoll instance is shared with the
        // parent, whose registration must stay.
        delete socket;
        return;
    }
    ReceiveLoop* const loop = socket->Loop;
    const bool inCallback = loop->IsOwnThread();
    {
        const std::lock_guard lock(g_Lock);
        if (socket->Joined)
            UnwatchGroup(*socket->Joined);
        // Release pairs with the acquire in Serve.
        socket->Closed.store(true, std::memory_order_release);
        loop->Unregister(*socket);
    }
    if (!inCallback) {
        const std::lock_guard left(socket->Busy);
    }
    socket->File = Descriptor();
    {
        const std::lock_guard lock(g_Lock);
        // The thread may hold an event for the socket that it has not looked at yet, so the memory
        // goes when it waits for new ones.
        socket->NextDead = std::exchange(loop->Dead, socket);
        --loop->SocketCount;
        loop->InCallback = loop->InCallback || inCallback;
        loop->Wake();
    }
    EndUnusedThreads(false);
}

bool ExchangeFile(ReceiveSocket& socket, const Descriptor& file) {
    socket.Loop->Unregister(socket);
    const bool exchanged = dup3(file.Number(), socket.File.Number(), O_CLOEXEC) >= 0;
    return socket.Loop->Register(socket) && exchanged;
}

// Unloading, and exit: a thread that a callback brought to its end must be gone before the code is.
// A child of fork() has none of the threads, and one of them may have left a lock closed there.
__attribute__((destructor)) static void EndAtUnload() {
    const CancellationOff uncancelled;
    if (g_Process == getpid())
        EndUnusedThreads(true);
}

}  // namespace zaqsockets
