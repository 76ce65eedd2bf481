#include "ReceiveLoop.h"

#include <sys/epoll.h>
#include <sys/eventfd.h>

#include <cerrno>
#include <new>

#include "GroupWatch.h"
#include "Threads.h"

namespace zaqsockets {

namespace {

constexpr int kEvents = 64;
constexpr useconds_t kErrorPause_us = 1000;

// All guarded by g_Lock.
ReceiveLoop* g_Loop = nullptr;  // in service
pthread_t g_Ended;              // a thread that ended by itself and was not waited for yet
bool g_HasEnded = false;
pid_t g_Process = 0;  // whose threads these are

uint32_t BufferOf(const Descriptor& socket) {
    uint32_t bytes = 0;
    socklen_t size = sizeof(bytes);
    getsockopt(socket.Number(), SOL_SOCKET, SO_RCVBUF, &bytes, &size);
    return bytes;
}

}  // namespace

ReceiveSocket::ReceiveSocket(Descriptor file, void* context, ZAQReceiveCallback callback)
    : UdpSocket(std::move(file), context, this), Callback(callback), Share(BufferOf(File)) {}

ReceiveLoop::ReceiveLoop()
    : m_Epoll(epoll_create1(EPOLL_CLOEXEC)),
      m_Wakeup(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)),
      m_Batch(new ReceiveBatch) {
    m_Batch->Prepare();
}

ReceiveLoop::~ReceiveLoop() {
    while (m_Dead != nullptr)
        delete std::exchange(m_Dead, m_Dead->NextDead);
}

// With g_Lock held.
bool ReceiveLoop::Start() {
    // It holds no lock and calls nothing any more.
    if (std::exchange(g_HasEnded, false))
        pthread_join(g_Ended, nullptr);
    std::unique_ptr<ReceiveLoop> loop(new ReceiveLoop);
    epoll_event wakeup{};
    wakeup.events = EPOLLIN;
    if (!loop->m_Epoll || !loop->m_Wakeup ||
        epoll_ctl(loop->m_Epoll.Number(), EPOLL_CTL_ADD, loop->m_Wakeup.Number(), &wakeup) != 0 ||
        !StartThread(loop->m_Thread, &ReceiveLoop::Run, loop.get()))
        return false;
    g_Loop = loop.release();  // the thread frees it when it ends
    return true;
}

bool ReceiveLoop::Register(ReceiveSocket& socket) const {
    epoll_event readable{};
    readable.events = EPOLLIN;
    readable.data.ptr = &socket;
    return epoll_ctl(m_Epoll.Number(), EPOLL_CTL_ADD, socket.File.Number(), &readable) == 0;
}

bool ReceiveLoop::Attach(ReceiveSocket& socket) {
    bool attached = false;
    try {
        attached = TryAttach(socket);
    } catch (const std::bad_alloc&) {
    }
    if (!attached)
        EndIfUnused(false);  // what was made for this socket
    return attached;
}

bool ReceiveLoop::TryAttach(ReceiveSocket& socket) {
    const std::lock_guard lock(g_Lock);
    // After fork() the parent's threads are of no use to the child: they are not there.
    if (g_Process != getpid()) {
        g_Process = getpid();
        g_Loop = nullptr;
        g_HasEnded = false;
        GroupWatch::Forget();
    }
    if (g_Loop == nullptr && !Start())
        return false;
    socket.Loop = g_Loop;
    if (socket.Joined && !GroupWatch::Add(socket.Joined, socket))
        return false;
    // The thread may serve the socket at once, and its callback destroy it; but that needs the
    // lock.
    if (g_Loop->Register(socket)) {
        ++g_Loop->m_SocketCount;
        return true;
    }
    if (socket.Joined)
        GroupWatch::Remove(*socket.Joined);
    return false;
}

void ReceiveLoop::Detach(ReceiveSocket* socket) {
    if (socket->Process != getpid()) {
        // In a child of fork() no thread serves the socket. The epoll instance is shared with the
        // parent, whose registration must stay.
        delete socket;
        return;
    }
    ReceiveLoop* const loop = socket->Loop;
    bool inCallback;
    {
        const std::lock_guard lock(g_Lock);
        inCallback = loop->IsOwnThread();
        if (socket->Joined)
            GroupWatch::Remove(*socket->Joined);
        // Release pairs with the acquire in Serve.
        socket->Closed.store(true, std::memory_order_release);
        epoll_ctl(loop->m_Epoll.Number(), EPOLL_CTL_DEL, socket->File.Number(), nullptr);
    }
    if (!inCallback) {
        const std::lock_guard left(socket->Busy);
    }
    socket->File.Close();
    {
        const std::lock_guard lock(g_Lock);
        // The thread may hold an event for the socket that it has not looked at yet, so the memory
        // goes when it waits for new ones.
        socket->NextDead = std::exchange(loop->m_Dead, socket);
        --loop->m_SocketCount;
        loop->m_InCallback = loop->m_InCallback || inCallback;
        loop->Wake();
    }
    EndIfUnused(false);
}

bool ReceiveLoop::Exchange(ReceiveSocket& socket, const Descriptor& file) {
    const int number = socket.File.Number();
    epoll_ctl(socket.Loop->m_Epoll.Number(), EPOLL_CTL_DEL, number, nullptr);
    const bool exchanged = dup3(file.Number(), number, O_CLOEXEC) >= 0;
    return socket.Loop->Register(socket) && exchanged;
}

void ReceiveLoop::EndIfUnused(bool all) {
    GroupWatch::EndIfUnused();
    pthread_t ended[2];
    int count = 0;
    {
        const std::lock_guard lock(g_Lock);
        if (std::exchange(g_HasEnded, false))
            ended[count++] = g_Ended;
        if (g_Loop != nullptr && g_Loop->m_SocketCount == 0 && !g_Loop->IsOwnThread() &&
            (all || !g_Loop->m_InCallback)) {
            ended[count++] = g_Loop->m_Thread;
            g_Loop->m_Stop = true;
            g_Loop->Wake();
            g_Loop = nullptr;
        }
    }
    while (count > 0)
        pthread_join(ended[--count], nullptr);
}

// With g_Lock held, since the thread frees the loop when it finds out that it is over.
void ReceiveLoop::Wake() const {
    const uint64_t one = 1;
    // Full means that a wake-up is pending already.
    [[maybe_unused]] const ssize_t written = write(m_Wakeup.Number(), &one, sizeof(one));
}

// Called when the thread was woken, and so in no callback and with no event left.
bool ReceiveLoop::IsOver() {
    uint64_t wakeups;
    [[maybe_unused]] const ssize_t size = read(m_Wakeup.Number(), &wakeups, sizeof(wakeups));
    ReceiveSocket* dead;
    bool over;
    {
        const std::lock_guard lock(g_Lock);
        dead = std::exchange(m_Dead, nullptr);
        m_InCallback = false;
        over = m_Stop || m_SocketCount == 0;
        if (over && !m_Stop) {
            g_Loop = nullptr;
            g_Ended = m_Thread;
            g_HasEnded = true;
        }
    }
    while (dead != nullptr)
        delete std::exchange(dead, dead->NextDead);
    return over;
}

void* ReceiveLoop::Run(void* loop) {
    pthread_setname_np(pthread_self(), "zaq-receive");
    const std::unique_ptr<ReceiveLoop> self(static_cast<ReceiveLoop*>(loop));
    self->Run();
    return nullptr;
}

void ReceiveLoop::Run() {
    for (;;) {
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
                     ReceiveBatch::kMessages)
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

// Takes one batch and returns the number of messages. What is left makes the socket readable again,
// after the others had their turn.
int ReceiveLoop::Serve(ReceiveSocket& socket) {
    const std::lock_guard busy(socket.Busy);
    // Acquire pairs with the release in Detach, here and below.
    if (socket.Closed.load(std::memory_order_acquire))
        return 0;
    const int count = recvmmsg(socket.File.Number(), m_Batch->Messages, ReceiveBatch::kMessages,
                               MSG_DONTWAIT, nullptr);
    if (count < 0 && errno != EAGAIN && errno != EINTR)
        usleep(kErrorPause_us);  // an error that stays must not turn this thread into a busy loop
    if (count <= 0)
        return 0;
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

static const pid_t g_LoadedBy = getpid();

// Unloading, and exit: a thread that a callback brought to its end must be gone before the code is.
// Not in a child of fork(), which has none of the threads, and where one of them may have left a
// lock closed.
__attribute__((destructor)) static void EndAtUnload() {
    const CancellationOff uncancelled;
    if (g_LoadedBy == getpid())
        ReceiveLoop::EndIfUnused(true);
}

}  // namespace zaqsockets
